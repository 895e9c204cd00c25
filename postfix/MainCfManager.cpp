// MainCfManager: see the header.
#include "postfix/MainCfManager.h"

#include "common/MKLock.h"
#include "postfix/PostfixError.h"
#include "postfix/PostfixTool.h"
#include "process/Pipe.h"

#include <algorithm>
#include <initializer_list>

namespace zorvo::mail::postfix {

namespace {

const char* const postconfPath = "/usr/sbin/postconf";
const char* const elementSeparators = " \t,";

/// Runs postconf with `arguments` and returns what it prints; throws for a failed run. What it prints on
/// standard error goes to `errorOutput`.
std::string queryPostconf(std::initializer_list<std::string> arguments, std::string& errorOutput)
{
    process::Parameters<process::PipeProcessFlags> postconf(postconfPath);
    postconf.arguments.insert(postconf.arguments.end(), arguments);
    std::string output;
    process::Pipe pipe;
    pipe.stdoutFd = process::kPipeFd;
    pipe.stdoutReceiver = process::makeStringReceiver(output);
    pipe.stderrFd = process::kPipeFd;
    pipe.stderrReceiver = process::makeStringReceiver(errorOutput);
    pipe.processes().push_back(postconf);
    requireToolSuccess(pipe.run(), errorOutput);
    return output;
}

/// A query without any output is an answer too, unless the tool reports an error.
void requireCleanOutput(const std::string& errorOutput)
{
    if (!checkOutput(errorOutput, false))
        throw PostfixConfigurationError(errorOutput);
}

std::deque<std::string> split(const std::string& value, const char* separators)
{
    std::deque<std::string> list;
    boost::algorithm::split(list, value, boost::algorithm::is_any_of(separators),
                            boost::algorithm::token_compress_off);
    return list;
}

} // namespace

MainCfManager& MainCfManager::getInstance()
{
    static MainCfManager instance;
    return instance;
}

MainCfManager::MainCfManager()
{
    const std::string name = "config_directory";
    std::string directory;
    try {
        directory = getStringValue(name, false, false);
    } catch (const PostfixConfigurationError&) {
        directory = getStringValue(name, true, false);
    }
    if (directory.empty())
        throw PostfixConfigurationError("unable to determine Postfix config_directory parameter");
    mainCfPath_ = directory + "/main.cf";
}

std::string MainCfManager::getStringValue(const std::string& name, bool useDefault, bool expand) const
{
    std::string errorOutput;
    std::string value;
    if (useDefault && expand)
        value = queryPostconf({"-h", "-d", "-x", name}, errorOutput);
    else if (useDefault)
        value = queryPostconf({"-h", "-d", name}, errorOutput);
    else if (expand)
        value = queryPostconf({"-h", "-x", name}, errorOutput);
    else
        value = queryPostconf({"-h", name}, errorOutput);
    if (value.empty())
        requireCleanOutput(errorOutput);
    boost::algorithm::trim(value);
    return value;
}

void MainCfManager::_lockedPostconfCall(const std::string& option, const std::string& argument)
{
    std::string errorOutput;
    process::Pipe pipe;
    pipe.stderrFd = process::kPipeFd;
    pipe.stderrReceiver = process::makeStringReceiver(errorOutput);
    pipe.processes().emplace_back(postconfPath, option, argument);
    int status = 0;
    {
        const MKLock lock(mainCfPath_, HashedName, Blocking);
        status = pipe.run();
    }
    requireToolSuccess(status, errorOutput);
}

void MainCfManager::replaceStringValue(const std::string& name, const std::string& value)
{
    _lockedPostconfCall("-e", name + "=" + value);
}

void MainCfManager::removeKey(const std::string& name)
{
    _lockedPostconfCall("-X", name);
}

bool MainCfManager::isParamExists(const std::string& name) const
{
    std::string errorOutput;
    return !queryPostconf({"-d", name}, errorOutput).empty();
}

bool MainCfManager::isValueConfigured(const std::string& name) const
{
    std::string errorOutput;
    if (!queryPostconf({"-n", name}, errorOutput).empty())
        return true;
    requireCleanOutput(errorOutput);
    return false;
}

void MainCfManager::getList(const std::string& name, std::deque<std::string>& list) const
{
    list = split(getStringValue(name, false, false), elementSeparators);
}

void MainCfManager::setList(const std::string& name, const std::deque<std::string>& list)
{
    replaceStringValue(name, boost::algorithm::join(list, ", "));
}

bool MainCfManager::removeListElement(const std::string& name, const std::string& value)
{
    return transformList(name, eq_tf(value));
}

void MainCfManager::appendStringValue(const std::string& name, const std::string& value)
{
    const std::string current = getStringValue(name, false, false);
    const std::deque<std::string> list = split(current, elementSeparators);
    if (std::find(list.begin(), list.end(), value) != list.end()) {
        if (name == "mynetworks")
            replaceStringValue(name, current);
    } else {
        replaceStringValue(name, current.empty() ? value : current + ", " + value);
    }
}

void MainCfManager::appendCompoundStringValue(const std::string& name, const std::string& key,
                                              const std::string& value)
{
    SingleCompoundStringValueAppender appender(key, value);
    filterStringValues(name, appender);
}

std::deque<std::string> MainCfManager::splitAtCommas(const std::string& value)
{
    std::deque<std::string> list = split(value, ",");
    for (std::string& element : list)
        boost::algorithm::trim(element);
    return list;
}

SingleCompoundStringValueAppender::SingleCompoundStringValueAppender(const std::string& key,
                                                                     const std::string& value)
    : key_(key), value_(value)
{
}

std::string SingleCompoundStringValueAppender::compound() const
{
    return boost::algorithm::trim_right_copy(key_ + " " + value_);
}

void SingleCompoundStringValueAppender::operator()(const std::string& element)
{
    found_ = found_ || element == compound();
    keySeen_ = keySeen_ || boost::algorithm::starts_with(element, key_);
}

bool SingleCompoundStringValueAppender::finish(std::deque<std::string>& list)
{
    if (found_)
        return false;
    list.push_back(compound());
    appended_ = true;
    return true;
}

} // namespace zorvo::mail::postfix
