// Runs the program with one fault after the other and prints what was tried and what survived.
//
// usage:  fault_tests [--long] [--share K/N] [PART...]
//         Without a part all are run. Of N shares, share K (from 1 to N) strikes every N-th point; a part
//         whose points depend on each other counts as one point.
// needs:  scripts/sandbox around it
// exits:  0 everything survived; 1 something did not; 2 wrong usage, or no test can be made; 77 the sandbox
//         has no private namespaces, which these tests mount in
#include "Report.h"
#include "Run.h"
#include "World.h"

#include <cstdio>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace {

struct Part {
    const char* name;
    void (*run)(faults::Report& report, bool longForm);
    bool isOnePoint; ///< Run whole by one share.
};

const Part parts[] = {
    {"interrupted", faults::testInterrupted, false},
    {"killed", faults::testKilled, false},
    {"failing", faults::testFailing, false},
    {"power-loss", faults::testPowerLoss, true},
    {"full-disk", faults::testFullDisk, true},
    {"several-at-once", faults::testSeveralAtOnce, false},
    {"environment", faults::testEnvironment, true},
    {"descriptor-limits", faults::testDescriptorLimits, true},
    {"hostile-input", faults::testHostileInput, false},
    {"memory", faults::testMemory, false},
    {"real-tools", faults::testRealTools, false},
};

struct Options {
    bool longForm = false;
    unsigned share = 1;
    unsigned shares = 1;
    std::vector<const Part*> chosen;
};

const Part* findPart(const std::string& name)
{
    for (const Part& part : parts)
        if (name == part.name)
            return &part;
    return nullptr;
}

/// "K/N" with K from 1 to N.
bool parseShare(const char* word, Options& options)
{
    int end = 0;
    return word != nullptr && sscanf(word, "%u/%u%n", &options.share, &options.shares, &end) == 2 &&
           word[end] == '\0' && options.share >= 1 && options.share <= options.shares;
}

std::optional<Options> parseOptions(char* words[])
{
    Options options;
    for (; *words != nullptr; ++words) {
        const std::string word = *words;
        if (word == "--long") {
            options.longForm = true;
        } else if (word == "--share") {
            if (!parseShare(*++words, options))
                return std::nullopt;
        } else if (const Part* const part = findPart(word)) {
            options.chosen.push_back(part);
        } else {
            return std::nullopt;
        }
    }
    if (options.chosen.empty())
        for (const Part& part : parts)
            options.chosen.push_back(&part);
    return options;
}

bool runParts(const Options& options)
{
    faults::Report report(options.share, options.shares);
    for (const Part* const part : options.chosen) {
        if (part->isOnePoint && !report.takes())
            continue;
        fprintf(stderr, "%s...\n", part->name);
        part->run(report, options.longForm);
    }
    return report.print();
}

} // namespace

int main(int, char* argv[])
{
    const std::optional<Options> options = parseOptions(argv + 1);
    if (!options) {
        fprintf(stderr, "usage: fault_tests [--long] [--share K/N] [PART...]\nparts:");
        for (const Part& known : parts)
            fprintf(stderr, " %s", known.name);
        fprintf(stderr, "\n");
        return 2;
    }
    if (std::filesystem::exists("/run/sandbox.direct")) {
        fprintf(stderr, "fault_tests: skipped, as the kernel refuses private namespaces\n");
        return 77;
    }
    try {
        faults::programPath = ZORVO_PROGRAM;
        faults::setUpMachine(ZORVO_FAULTS_TOOL);
        return runParts(*options) ? 0 : 1;
    } catch (const std::exception& e) {
        fprintf(stderr, "fault_tests: %s\n", e.what());
        return 2;
    }
}
