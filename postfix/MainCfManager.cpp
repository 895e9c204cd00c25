#include "postfix/MainCfManager.h"

#include "common/MKLock.h"
#include "postfix/PostfixError.h"
#include "postfix/PostfixTool.h"

#include <boost/algorithm/string.hpp>

#include <algorithm>
#include <vector>

namespace zorvo::mail::postfix {

namespace {

const char* const elementSeparators = " \t,";

/// Runs postconf to ask for something; throws for a failed run.
ToolResult queryPostconf(const std::vector<std::string>& arguments)
{
    ToolCommand command(postconfPath);
    command.arguments.insert(command.arguments.end(), arguments.begin(), arguments.end());
    ToolResult result = runPostfixTool(command, ToolOutput::Captured);
    requireToolSuccess(result);
    return result;
}

/// A query that prints nothing is an answer too, unless the tool reports an error.
void requireAnswer(const ToolResult& result)
{
    if (result.output.empty() && !checkOutput(result.errorOutput, false))
        throw PostfixConfigurationError(result.errorOutput);
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
    std::vector<std::string> arguments{"-h"};
    if (useDefault)
        arguments.emplace_back("-d");
    if (expand)
        arguments.emplace_back("-x");
    arguments.push_back(name);
    const ToolResult result = queryPostconf(arguments);
    requireAnswer(result);
    return boost::algorithm::trim_copy(result.output);
}

void MainCfManager::_lockedPostconfCall(const std::string& option, const std::string& argument)
{
    ToolResult result;
    {
        const MKLock lock(mainCfPath_, HashedName, Blocking);
        result = runPostfixTool({postconfPath, option, argument}, ToolOutput::Inherited);
    }
    requireToolSuccess(result);
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
    return !queryPostconf({"-d", name}).output.empty();
}

bool MainCfManager::isValueConfigured(const std::string& name) const
{
    const ToolResult result = queryPostconf({"-n", name});
    requireAnswer(result);
    return !result.output.empty();
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

std::deque<std::string> MainCfManager::_splitAtCommas(const std::string& value)
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

std::string SingleCompoundStringValueAppender::_compound() const
{
    return boost::algorithm::trim_right_copy(key_ + " " + value_);
}

void SingleCompoundStringValueAppender::operator()(const std::string& element)
{
    found_ = found_ || element == _compound();
}

bool SingleCompoundStringValueAppender::finish(std::deque<std::string>& list)
{
    if (found_)
        return false;
    list.push_back(_compound());
    appended_ = true;
    return true;
}

} // namespace zorvo::mail::postfix
