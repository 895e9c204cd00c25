// The progress line: when it is shown and how it disappears.
#include "check/ProgressLine.h"

#include <gtest/gtest.h>

#include <sstream>

namespace zorvo::check {

using std::chrono::milliseconds;

TEST(ProgressLineTest, NothingIsShownInTheFirstSecond)
{
    std::ostringstream terminal;
    {
        ProgressLine line(terminal);
        line.show(0, 10, milliseconds(0));
        line.show(9, 10, milliseconds(999));
    }
    EXPECT_EQ("", terminal.str());
}

TEST(ProgressLineTest, LineIsRewrittenTenTimesASecondAndErasedAtTheEnd)
{
    std::ostringstream terminal;
    {
        ProgressLine line(terminal);
        line.show(9, 10, milliseconds(1000));
        line.show(10, 12, milliseconds(1099));
        line.show(11, 12, milliseconds(1100));
        EXPECT_EQ("\rDNS: 9 of 10 answers\rDNS: 11 of 12 answers", terminal.str());
    }
    EXPECT_EQ("\rDNS: 9 of 10 answers\rDNS: 11 of 12 answers\r" + std::string(21, ' ') + "\r",
              terminal.str());
}

} // namespace zorvo::check
