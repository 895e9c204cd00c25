// Sweep: the places in a run where a fault can strike, and what every run has to leave behind.
#pragma once

#include "Report.h"
#include "Run.h"
#include "Scenario.h"
#include "World.h"

#include <functional>
#include <string>
#include <vector>

namespace faults {

/// The calls of an undisturbed run of `threeDomains`, in order.
const std::vector<Event>& undisturbedRun();

/// The run ended as the scenario says: cleanly, with its status and both its outputs.
void requireReport(Problems& problems, const Scenario& scenario, const Outcome& outcome);

/// A run of a scenario without any fault, which has to end as the scenario says.
Outcome runUndisturbed(const Scenario& scenario);

/// Those of the calls that `wanted` picks. The short form keeps of those alike (in name and in what they are
/// about) the first and the last, and of the children one of each kind.
std::vector<Event> placesToStrike(const std::vector<Event>& events, bool longForm,
                                  const std::function<bool(const Event&)>& wanted);

/// What a child of a run of `threeDomains` is launched for: child N runs the N-th tool.
const support::Command& commandOf(int process);

/// The first child that runs that tool.
int processOf(const support::Command& command);

/// Whether a child runs the service script, which is launched in another way than the others.
bool isScript(int process);

/// Runs `threeDomains` in a fresh world with that fault. If the run does not reach the place, because the
/// order of signals is random, it is tried a few more times.
Outcome strike(const Event& place, Effect effect, int error = 0);

/// The same with a run of the scenario.
Outcome strike(const Scenario& scenario, const Event& place, Effect effect, int error = 0);

/// "write 12 on pipe: "
std::string describe(const Event& place);

/// A run in this state of the world succeeds and leaves exactly what its request says.
void requireSuccess(Problems& problems, const Request& request, const Outcome& outcome,
                    const std::string& output = std::string());

/// Runs `twoDomains` in the world as it is; that must end in exactly the requested state, with nothing but
/// `leftovers` beside it.
void requireNextRun(Problems& problems, const std::vector<std::string>& leftovers = {});

/// The run ended, with no child and no descriptor left.
void requireCleanEnd(Problems& problems, const Outcome& outcome);

/// Files in the two directories that belong to nobody.
std::vector<std::string> strayFiles();

} // namespace faults
