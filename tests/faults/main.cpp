// Runs the program with one fault after the other and prints what was tried and what survived.
//
// usage:  fault_tests [--long] [PART...]   without a part all are run
// needs:  scripts/sandbox around it
// exits:  0 everything survived; 1 something did not; 2 wrong usage, or no test can be made; 77 the sandbox
// has no
//         private namespaces, which these tests mount in
#include "Report.h"
#include "Run.h"
#include "World.h"

#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

namespace {

struct Part {
    const char* name;
    void (*run)(faults::Report& report, bool longForm);
};

const Part parts[] = {
    {"interrupted", faults::testInterrupted},
    {"killed", faults::testKilled},
    {"failing", faults::testFailing},
    {"power-loss", faults::testPowerLoss},
    {"full-disk", faults::testFullDisk},
    {"several-at-once", faults::testSeveralAtOnce},
    {"environment", faults::testEnvironment},
    {"descriptor-limits", faults::testDescriptorLimits},
    {"hostile-input", faults::testHostileInput},
    {"memory", faults::testMemory},
    {"real-tools", faults::testRealTools},
};

const Part* findPart(const std::string& name)
{
    for (const Part& part : parts)
        if (name == part.name)
            return &part;
    return nullptr;
}

} // namespace

int main(int argc, char* argv[])
{
    bool longForm = false;
    std::vector<const Part*> chosen;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--long") {
            longForm = true;
        } else if (const Part* const part = findPart(word)) {
            chosen.push_back(part);
        } else {
            fprintf(stderr, "usage: fault_tests [--long] [PART...]\nparts:");
            for (const Part& known : parts)
                fprintf(stderr, " %s", known.name);
            fprintf(stderr, "\n");
            return 2;
        }
    }
    if (chosen.empty())
        for (const Part& part : parts)
            chosen.push_back(&part);
    if (std::filesystem::exists("/run/sandbox.direct")) {
        fprintf(stderr, "fault_tests: skipped, as the kernel refuses private namespaces\n");
        return 77;
    }
    try {
        faults::programPath = ZORVO_PROGRAM;
        faults::setUpMachine(ZORVO_FAULTS_TOOL);
        faults::Report report;
        for (const Part* const part : chosen) {
            fprintf(stderr, "%s...\n", part->name);
            part->run(report, longForm);
        }
        return report.print() ? 0 : 1;
    } catch (const std::exception& e) {
        fprintf(stderr, "fault_tests: %s\n", e.what());
        return 2;
    }
}
