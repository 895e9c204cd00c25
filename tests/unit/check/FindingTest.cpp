// The table of all kinds of findings.
#include "check/Finding.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>

namespace zorvo::check {

TEST(FindingKindsTest, EachStandsAtItsPlaceAndTheLastOneIsThere)
{
    const auto& kinds = findingKinds();
    for (size_t i = 0; i < kinds.size(); ++i)
        EXPECT_EQ(static_cast<size_t>(kinds[i].kind), i) << kinds[i].identifier;
    EXPECT_EQ(kinds.back().kind, Kind::SpfNotKnown);
}

TEST(FindingKindsTest, IdentifiersAreWordsInLowerCaseAndDiffer)
{
    const std::regex words("[a-z][a-z0-9]*(-[a-z0-9]+)+");
    std::set<std::string> seen;
    for (const KindInfo& info : findingKinds()) {
        EXPECT_TRUE(std::regex_match(info.identifier, words)) << info.identifier;
        EXPECT_TRUE(seen.insert(info.identifier).second) << info.identifier;
    }
}

TEST(FindingKindsTest, ConsequenceAndRemedyAreOneSentenceEach)
{
    const std::regex sentence("[A-Za-z][^\n]*[^.]\\.");
    const std::regex secondSentence("[.] [A-Z]");
    for (const KindInfo& info : findingKinds()) {
        for (const std::string text : {info.consequence, info.remedy}) {
            EXPECT_TRUE(std::regex_match(text, sentence)) << info.identifier << ": " << text;
            EXPECT_FALSE(std::regex_search(text, secondSentence)) << info.identifier << ": " << text;
        }
    }
}

TEST(FindingKindsTest, InfoIsThatOfTheKind)
{
    EXPECT_STREQ(infoOf(Kind::AddressNotOnHost).identifier, "address-not-on-host");
    EXPECT_EQ(infoOf(Kind::AddressNotOnHost).gravity, Gravity::Problem);
}

TEST(GravityNameTest, EachGravityHasItsName)
{
    EXPECT_STREQ(gravityName(Gravity::Severe), "severe");
    EXPECT_STREQ(gravityName(Gravity::Problem), "problem");
    EXPECT_STREQ(gravityName(Gravity::Warning), "warning");
}

} // namespace zorvo::check
