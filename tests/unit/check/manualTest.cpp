// The manual page says the same about each finding as the program, in the same order.
#include "check/Finding.h"

#include "support/ScratchDir.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace zorvo::check {

namespace {

/// "identifier (gravity): text" for each entry of the section FINDINGS, its lines joined.
std::vector<std::string> entriesOfManual()
{
    std::istringstream page(support::readFile(CHECK_MANUAL));
    std::vector<std::string> entries;
    bool isInside = false;
    for (std::string line; std::getline(page, line);) {
        const std::string head = ".It Sy ";
        const size_t gravity = line.find(" Pq ");
        if (line.rfind(".Sh ", 0) == 0)
            isInside = line == ".Sh FINDINGS";
        else if (isInside && line.rfind(head, 0) == 0 && gravity != std::string::npos)
            entries.push_back(line.substr(head.size(), gravity - head.size()) + " (" +
                              line.substr(gravity + 4) + "):");
        else if (isInside && line.front() != '.' && !entries.empty())
            entries.back() += " " + line;
    }
    return entries;
}

} // namespace

TEST(ManualPageTest, NamesEveryFindingWithWhatTheProgramSays)
{
    std::vector<std::string> expected;
    for (const KindInfo& info : findingKinds())
        expected.push_back(std::string(info.identifier) + " (" + gravityName(info.gravity) +
                           "): " + info.consequence + " " + info.remedy);
    EXPECT_EQ(entriesOfManual(), expected);
}

} // namespace zorvo::check
