// Scenario: a run in a certain state of the machine, and how it has to end.
#pragma once

#include "Run.h"

#include <functional>
#include <string>
#include <vector>

namespace faults {

struct Scenario {
    std::string name;
    std::vector<std::string> arguments;
    std::string input;
    std::function<void()> prepare; ///< Makes the world different, after it was reset.
    int status;                    ///< The exit status.
    std::string out;               ///< What has to be on standard output...
    std::string err;               ///< ...and on standard error.
    bool inShortForm;

    /// The world as it is at the start of this scenario.
    void begin() const;

    Launch launch() const;
};

/// Runs of every type, and of every way in which the program reports a failure.
const std::vector<Scenario>& scenarios();

/// Those of them that end with a report, in the short form a few.
std::vector<Scenario> reportingScenarios(bool longForm);

} // namespace faults
