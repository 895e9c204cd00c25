#include "Scenario.h"

#include "World.h"
#include "support/HelpText.h"

#include <algorithm>
#include <filesystem>

namespace fs = std::filesystem;

namespace faults {

namespace {

const std::string missing = "No such file or directory";

void nothing() {}

Scenario success(const std::string& name, std::vector<std::string> arguments, const std::string& input)
{
    return {name, std::move(arguments), input, nothing, 0, "", "", false};
}

/// A run that reports "Fatal error: DESCRIPTION", after `earlier`, on both streams.
Scenario failure(const std::string& name, std::vector<std::string> arguments, const std::string& input,
                 std::function<void()> prepare, const std::string& description,
                 const std::string& earlier = std::string())
{
    const std::string text = earlier + "Fatal error: " + description + '\n';
    return {name, std::move(arguments), input, std::move(prepare), 1, text, text, false};
}

std::string configurationError(const std::string& text)
{
    return "zorvo::mail::postfix::PostfixConfigurationError(" + text + ')';
}

Scenario inShortForm(Scenario scenario)
{
    scenario.inShortForm = true;
    return scenario;
}

std::vector<Scenario> successes()
{
    return {
        inShortForm(success("domain-name", {"-t", "domain-name"}, threeDomains.input())),
        success("domain-ip", {"-t", "domain-ip"}, threeDomains.input()),
        inShortForm(
            success("explicit-ip", {"-t", "explicit-ip", "-4", "192.0.2.1", "-6", "2001:db8::1"}, "")),
        success("an unknown type", {"-t", "none"}, threeDomains.input()),
    };
}

/// Failures caused by the input or the command line.
std::vector<Scenario> refusals()
{
    return {
        inShortForm({"help", {"--help"}, "", nothing, 1, "", support::helpText, false}),
        inShortForm(
            failure("a malformed request", {"-t", "domain-name"}, R"({"domains":[{"domain":"a"}]})", nothing,
                    "std::runtime_error(can not parse data from stdin : Some required fields are "
                    "missing from the JSON object. Check that input JSON document conforms to schema. "
                    "Error occured at offset 26, character ']'. )")),
        failure("an empty domain", {"-t", "domain-name"}, support::request({{"", "192.0.2.1", ""}}), nothing,
                "zorvo::SystemError(Empty domain name specified: Success)"),
        failure("no addresses", {"-t", "explicit-ip"}, "", nothing,
                "std::runtime_error(either ipv4 and ip6 empty)"),
    };
}

/// Failures caused by the state of the machine.
std::vector<Scenario> failures()
{
    const std::vector<std::string> arguments = {"-t", "domain-name"};
    const std::string input = threeDomains.input();
    const auto remove = [](const char* path) { return [path] { fs::remove(path); }; };
    const auto masterCf = [](const char* bytes) { return [bytes] { writeFile(masterCfPath, bytes); }; };
    return {
        inShortForm(failure("no postmap", arguments, input, remove(support::postmapPath),
                            "zorvo::SystemError(execv: " + missing + ": " + missing + ")")),
        {"no service script", arguments, input, remove(support::serviceScriptPath), 0, "", "", false},
        inShortForm(failure("no lock directory", arguments, input, remove(lockDirectory),
                            "zorvo::SystemError(lock() failed: " + missing + ")",
                            "Unable to open file \"" + support::lockFileOf(mainCfPath) + "\": " + missing +
                                ".\nSystem error 2: " + missing + "\n")),
        inShortForm(
            failure("a failing tool", arguments, input, remove(mainCfPath),
                    configurationError("postconf: fatal: open /etc/postfix/main.cf: " + missing + "\n"))),
        failure("an unreadable master.cf", arguments, input, masterCf("smtp inet n\n"),
                configurationError(
                    "unable to parse /etc/postfix/master.cf: syntax error at position 0 near 'smtp inet n'")),
        failure("an empty master.cf", arguments, input, masterCf(""),
                configurationError("unable to open /etc/postfix/master.cf")),
    };
}

} // namespace

void Scenario::begin() const
{
    restoreMachine();
    prepare();
}

Launch Scenario::launch() const
{
    Launch launch;
    launch.arguments = arguments;
    launch.input = input;
    return launch;
}

const std::vector<Scenario>& scenarios()
{
    static const std::vector<Scenario> all = [] {
        std::vector<Scenario> list;
        for (const auto& part : {successes(), refusals(), failures()})
            list.insert(list.end(), part.begin(), part.end());
        return list;
    }();
    return all;
}

std::vector<Scenario> reportingScenarios(bool longForm)
{
    std::vector<Scenario> chosen;
    std::copy_if(
        scenarios().begin(), scenarios().end(), std::back_inserter(chosen),
        [=](const Scenario& scenario) { return scenario.status != 0 && (longForm || scenario.inShortForm); });
    return chosen;
}

} // namespace faults
