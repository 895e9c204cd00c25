// The answers that /etc/hosts gives.
#include "check/hostsFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

namespace zorvo::check {

namespace {

using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

/// By type and name: the values in one line.
std::map<DnsQuestion, std::string> read(const std::string& text)
{
    std::istringstream file(text);
    std::map<DnsQuestion, std::string> values;
    for (const auto& [question, answer] : readHostsFile(file)) {
        EXPECT_EQ(DnsAnswer::State::Found, answer.state);
        EXPECT_TRUE(answer.fromHostsFile);
        for (const std::string& value : answer.values)
            values[question] += value + ";";
    }
    return values;
}

DnsQuestion question(ns_type type, const std::string& name)
{
    return {type, name};
}

} // namespace

TEST(ReadHostsFileTest, NamesAndAddressesLeadToEachOther)
{
    EXPECT_THAT(
        read("192.0.2.1\tOne.Example one # two\n2001:DB8:0::1 one.example.\n"),
        UnorderedElementsAre(Pair(question(ns_t_a, "one.example"), "192.0.2.1;"),
                             Pair(question(ns_t_a, "one"), "192.0.2.1;"),
                             Pair(question(ns_t_aaaa, "one.example"), "2001:db8::1;"),
                             Pair(question(ns_t_ptr, "1.2.0.192.in-addr.arpa"), "one.example;one;"),
                             Pair(question(ns_t_ptr, "1.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0."
                                                     "8.b.d.0.1.0.0.2.ip6.arpa"),
                                  "one.example;")));
}

TEST(ReadHostsFileTest, LinesOfOneNameAddUp)
{
    EXPECT_EQ("192.0.2.1;192.0.2.2;",
              read("192.0.2.1 one.example\n192.0.2.2 one.example").at(question(ns_t_a, "one.example")));
}

TEST(ReadHostsFileTest, OtherLinesAreSkipped)
{
    EXPECT_THAT(read(""), IsEmpty());
    EXPECT_THAT(read("# 192.0.2.1 one.example\n\n   \nnonsense one.example\n192.0.2.1\n1::x one\n"),
                IsEmpty());
}

} // namespace zorvo::check
