#include "postfix/PostconfReader.h"

#include "postfix/PostfixTool.h"

#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/trim.hpp>

#include <sstream>
#include <string_view>

namespace zorvo::mail::postfix {

namespace {

std::string outputOf(const ToolCommand& command)
{
    ToolResult result = runPostfixTool(command, ToolOutput::Captured);
    requireToolSuccess(result);
    return std::move(result.output);
}

struct Setting {
    std::string name;
    std::string value;
};

/// "NAME = VALUE", or "NAME =" for an empty value.
Setting parseSetting(const std::string& line)
{
    const size_t sign = line.find(" =");
    if (sign == std::string::npos)
        return {line, ""};
    return {line.substr(0, sign), boost::algorithm::trim_copy(line.substr(sign + 2))};
}

/// `line` with one blank for each run of them.
std::string squeezed(const std::string& line)
{
    std::istringstream words(line);
    std::string result;
    for (std::string word; words >> word;)
        result.append(result.empty() ? "" : " ").append(word);
    return result;
}

} // namespace

std::map<std::string, std::string> PostconfReader::readParameters(const std::vector<std::string>& names)
{
    ToolCommand command(postconfPath, "-x");
    command.arguments.insert(command.arguments.end(), names.begin(), names.end());
    std::istringstream lines(outputOf(command));
    std::map<std::string, std::string> parameters;
    for (std::string line; std::getline(lines, line);) {
        Setting setting = parseSetting(line);
        parameters[setting.name] = std::move(setting.value);
    }
    return parameters;
}

std::unordered_map<std::string, ServiceView> PostconfReader::readServices(const std::string& prefix)
{
    const std::string unixType = "unix";
    std::unordered_map<std::string, ServiceView> services;
    std::istringstream entries(outputOf({postconfPath, "-M"}));
    for (std::string line; std::getline(entries, line);) {
        std::istringstream words(line);
        std::string name;
        std::string type;
        words >> name >> type;
        if (type == unixType && boost::algorithm::starts_with(name, prefix))
            services[name].line = squeezed(line);
    }
    // NAME/unix/PARAMETER = VALUE
    std::istringstream settings(outputOf({postconfPath, "-P"}));
    for (std::string line; std::getline(settings, line);) {
        Setting setting = parseSetting(line);
        const size_t type = setting.name.rfind("/" + unixType + "/");
        if (type == std::string::npos)
            continue;
        const auto service = services.find(setting.name.substr(0, type));
        if (service != services.end())
            service->second.parameters[setting.name.substr(type + unixType.size() + 2)] =
                std::move(setting.value);
    }
    return services;
}

} // namespace zorvo::mail::postfix
