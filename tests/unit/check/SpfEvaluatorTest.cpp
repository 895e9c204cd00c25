// SPF records applied to an address, with made-up answers of the DNS.
#include "check/SpfEvaluator.h"

#include "check/hostsFile.h"
#include "support/Capture.h"

#include <gtest/gtest.h>

#include <map>
#include <set>

namespace zorvo::check {

namespace {

/// A DNS with the records that are put into it. Everything else does not exist, except that names in
/// `missing` have no answer yet.
class SpfEvaluatorTest : public ::testing::Test {
protected:
    SpfEvaluatorTest()
        : evaluator([this](ns_type type, const std::string& name) -> const DnsAnswer* {
              asked.insert({type, name});
              if (missing.count(name) != 0)
                  return nullptr;
              const auto place = answers.find({type, name});
              return place == answers.end() ? &notThere : &place->second;
          })
    {
        notThere.state = DnsAnswer::State::NotThere;
    }

    void put(ns_type type, const std::string& name, std::vector<std::string> values)
    {
        answers[{type, name}] = {DnsAnswer::State::Found, std::move(values), false, {}};
    }

    /// The verdict on 192.0.2.2 for a domain with this record.
    SpfVerdict ofRecord(const std::string& record)
    {
        put(ns_t_txt, "one.example", {"something else", record});
        return evaluator.evaluate("one.example", "mx.example", Family::Ip4, "192.0.2.2").value();
    }

    DnsAnswer notThere;
    std::map<DnsQuestion, DnsAnswer> answers;
    std::set<std::string> missing;
    std::set<DnsQuestion> asked;
    SpfEvaluator evaluator;
};

} // namespace

TEST_F(SpfEvaluatorTest, EachResultIsReported)
{
    EXPECT_EQ(SpfResult::Pass, ofRecord("v=spf1 ip4:192.0.2.0/24 -all").result);
    EXPECT_EQ(SpfResult::Fail, ofRecord("v=spf1 -all").result);
    EXPECT_EQ(SpfResult::Softfail, ofRecord("v=spf1 ~all").result);
    EXPECT_EQ(SpfResult::Neutral, ofRecord("v=spf1 ?all").result);
    EXPECT_EQ(SpfResult::Neutral, ofRecord("v=spf1").result);
    EXPECT_EQ(SpfResult::None, ofRecord("v=spf2").result);
    EXPECT_EQ(SpfResult::Permerror, ofRecord("v=spf1 nonsense:one -all").result);
}

TEST_F(SpfEvaluatorTest, DomainThatIsNotThereHasNoRecord)
{
    EXPECT_EQ(SpfResult::None,
              evaluator.evaluate("two.example", "mx.example", Family::Ip4, "192.0.2.2").value().result);
}

TEST_F(SpfEvaluatorTest, MechanismsLookUpAddressesMailServersAndNames)
{
    put(ns_t_a, "one.example", {"192.0.2.1", "192.0.2.2"});
    EXPECT_EQ(SpfResult::Pass, ofRecord("v=spf1 a -all").result);
    put(ns_t_mx, "two.example", {"mail.two.example"});
    put(ns_t_a, "mail.two.example", {"192.0.2.2"});
    EXPECT_EQ(SpfResult::Pass, ofRecord("v=spf1 mx:two.example -all").result);
    put(ns_t_ptr, "2.2.0.192.in-addr.arpa", {"mail.two.example"});
    EXPECT_EQ(SpfResult::Pass, ofRecord("v=spf1 ptr:two.example -all").result);
    put(ns_t_a, "192.0.2.2.mx.example.postmaster.one.example", {"127.0.0.2"});
    EXPECT_EQ(SpfResult::Pass, ofRecord("v=spf1 exists:%{i}.%{h}.%{l}.%{d} -all").result);
}

TEST_F(SpfEvaluatorTest, Ip6AddressesAreLookedUpAsSuch)
{
    put(ns_t_txt, "one.example", {"v=spf1 a -all"});
    put(ns_t_aaaa, "one.example", {"2001:db8::2"});
    EXPECT_EQ(SpfResult::Pass,
              evaluator.evaluate("one.example", "mx.example", Family::Ip6, "2001:db8::2").value().result);
    EXPECT_EQ(SpfResult::Fail,
              evaluator.evaluate("one.example", "mx.example", Family::Ip6, "2001:db8::3").value().result);
}

TEST_F(SpfEvaluatorTest, ErrorOfTheRecordIsNamed)
{
    EXPECT_EQ("Unknown mechanism found near 'nonsense:one'", ofRecord("v=spf1 nonsense:one -all").reason);
    EXPECT_EQ("include: or redirect= caused unlimited recursion",
              ofRecord("v=spf1 include:one.example").reason);
    put(ns_t_txt, "two.example", {"v=spf1 -all", "v=spf1 +all"});
    const SpfVerdict twice =
        evaluator.evaluate("two.example", "mx.example", Family::Ip4, "192.0.2.2").value();
    EXPECT_EQ(SpfResult::Permerror, twice.result);
    EXPECT_EQ("Multiple SPF records for 'two.example'", twice.reason);
}

TEST_F(SpfEvaluatorTest, UnknownAnswersMakeATemperrorWhereverTheyAre)
{
    for (const ns_type type : {ns_t_txt, ns_t_a, ns_t_mx})
        answers[{type, "silent.example"}] = DnsAnswer();
    EXPECT_EQ(SpfResult::Temperror, ofRecord("v=spf1 include:silent.example -all").result);
    EXPECT_EQ(SpfResult::Temperror, ofRecord("v=spf1 a:silent.example -all").result);
    EXPECT_EQ(SpfResult::Temperror, ofRecord("v=spf1 mx:silent.example -all").result);
    EXPECT_EQ(SpfResult::Temperror, ofRecord("v=spf1 redirect=silent.example").result);
    EXPECT_EQ(SpfResult::Temperror,
              evaluator.evaluate("silent.example", "mx.example", Family::Ip4, "192.0.2.2").value().result);
}

TEST_F(SpfEvaluatorTest, MissingAnswerLeavesTheVerdictOpenUntilItIsThere)
{
    put(ns_t_txt, "one.example", {"v=spf1 include:two.example -all"});
    put(ns_t_txt, "two.example", {"v=spf1 ip4:192.0.2.2 -all"});
    missing = {"one.example", "two.example"};
    const auto evaluate = [this] {
        return evaluator.evaluate("one.example", "mx.example", Family::Ip4, "192.0.2.2");
    };
    EXPECT_FALSE(evaluate().has_value());
    missing = {"two.example"};
    EXPECT_FALSE(evaluate().has_value());
    missing = {};
    EXPECT_EQ(SpfResult::Pass, evaluate().value().result);
}

TEST_F(SpfEvaluatorTest, AnswersThatTookMoreThanTwentySecondsInAllMakeATemperror)
{
    put(ns_t_a, "slow.example", {"192.0.2.2"});
    answers[{ns_t_a, "slow.example"}].waited = std::chrono::seconds(20);
    EXPECT_EQ(SpfResult::Pass, ofRecord("v=spf1 a:slow.example -all").result);
    answers[{ns_t_a, "slow.example"}].waited += std::chrono::milliseconds(1);
    EXPECT_EQ(SpfResult::Temperror, ofRecord("v=spf1 a:slow.example -all").result);
}

TEST_F(SpfEvaluatorTest, NoMoreThanTenLookupsAreGranted)
{
    std::string record = "v=spf1";
    for (int i = 0; i < 12; ++i)
        record += " a:n" + std::to_string(i) + ".example";
    EXPECT_EQ(SpfResult::Permerror, ofRecord(record + " -all").result);
    EXPECT_EQ(0U, asked.count({ns_t_a, "n11.example"}));
}

TEST_F(SpfEvaluatorTest, ExplanationsAreNotLookedUpAndNothingIsPrinted)
{
    support::Capture capture;
    const SpfVerdict verdict = ofRecord("v=spf1 \033[31m -all exp=why.example");
    ofRecord("v=spf1 -all exp=why.example");
    EXPECT_EQ("", capture.out());
    EXPECT_EQ("", capture.err());
    EXPECT_EQ(SpfResult::Permerror, verdict.result);
    EXPECT_EQ(0U, asked.count({ns_t_txt, "why.example"}));
}

} // namespace zorvo::check
