// The list operations of MainCfManager: how a value is split, what is written back, and when nothing is
// written.
#include "postfix/MainCfManager.h"

#include "postfix/PostfixError.h"
#include "unit/postfix/FreshStart.h"
#include "unit/postfix/PostfixTestTools.h"
#include "unit/postfix/ToolStandIns.h"

#include "support/FixedPaths.h"
#include "support/LockFiles.h"
#include "support/RealPostfix.h"
#include "support/ScratchDir.h"

#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

namespace {

using support::exactMessageOf;
using support::postconfPath;
using support::ToolAnswer;
using namespace zorvo::mail::postfix;

using List = std::deque<std::string>;
using CommandLines = std::vector<std::vector<std::string>>;

const std::string mainCfLock = support::lockFileOf(support::mainCfPath);

class MainCfListTest : public support::FreshProcessTest {
protected:
    MainCfListTest()
    {
        tools_.replace(postconfPath);
        tools_.probeLock(mainCfLock);
        tools_.answer(postconfPath, {"-h", "config_directory"}, ToolAnswer::directory());
    }

    /// The instance, before a parameter of the value `value`.
    MainCfManager& managerOver(const std::string& value, const std::string& name = "name")
    {
        MainCfManager& instance = MainCfManager::getInstance();
        tools_.answer(postconfPath, {"-h", name}, ToolAnswer::prints(value + "\n"));
        tools_.forget();
        return instance;
    }

    /// The elements of `value`.
    List elementsOf(const std::string& value)
    {
        List list;
        managerOver(value).getList("name", list);
        return list;
    }

    static CommandLines readOnly(const std::string& name = "name") { return {{postconfPath, "-h", name}}; }

    static CommandLines readAndWrite(const std::string& value, const std::string& name = "name")
    {
        return {{postconfPath, "-h", name}, {postconfPath, "-e", name + "=" + value}};
    }

    /// What runs when `element` is appended to `value`.
    CommandLines runsOfAppending(const std::string& value, const std::string& element,
                                 const std::string& name = "name")
    {
        managerOver(value, name).appendStringValue(name, element);
        return tools_.commandLines();
    }

    CommandLines runsOfRemoving(const std::string& value, const std::string& element)
    {
        managerOver(value).removeListElement("name", element);
        return tools_.commandLines();
    }

    CommandLines runsOfCompound(const std::string& value, const std::string& key, const std::string& rest)
    {
        managerOver(value).appendCompoundStringValue("name", key, rest);
        return tools_.commandLines();
    }

    support::ToolStandIns tools_;
};

// --- getList

PROCESS_TEST_F(MainCfListTest, ListIsOneReadOfTheConfiguredValue)
{
    elementsOf("a");
    EXPECT_EQ(readOnly(), tools_.commandLines());
}

PROCESS_TEST_F(MainCfListTest, CommaAndBlankHoldAnEmptyElement)
{
    EXPECT_EQ((List{"a", "", "b"}), elementsOf("a, b"));
}

PROCESS_TEST_F(MainCfListTest, EachSingleSeparatorSplits)
{
    EXPECT_EQ((List{"a", "b", "c"}), elementsOf("a,b c"));
    EXPECT_EQ((List{"a", "b", "c", "d"}), elementsOf("a\tb c,d"));
}

PROCESS_TEST_F(MainCfListTest, AdjacentSeparatorsAreNotMerged)
{
    EXPECT_EQ((List{"a", "", "", "", "b"}), elementsOf("a , \tb"));
    EXPECT_EQ((List{"", "a", ""}), elementsOf(",a,"));
    EXPECT_EQ((List{"", ""}), elementsOf(","));
}

PROCESS_TEST_F(MainCfListTest, EmptyValueIsOneEmptyElement)
{
    EXPECT_EQ(List{""}, elementsOf(""));
}

// Line breaks separate nothing: they are part of an element.
PROCESS_TEST_F(MainCfListTest, OtherWhiteSpaceStaysInTheElement)
{
    EXPECT_EQ((List{"a", "\n", "", "b\r\v\fc"}), elementsOf("a,\n  b\r\v\fc"));
    EXPECT_EQ((List{"a;b:c"}), elementsOf("a;b:c"));
}

PROCESS_TEST_F(MainCfListTest, ListReplacesWhatTheCallerHad)
{
    List list{"old", "elements"};
    managerOver("a b").getList("name", list);
    EXPECT_EQ((List{"a", "b"}), list);
}

PROCESS_TEST_F(MainCfListTest, FailedReadIsPassedOnAndKeepsTheCallersList)
{
    MainCfManager& m = managerOver("a");
    tools_.answer(postconfPath, ToolAnswer::fails(1, "postconf: fatal: text\n"));
    List list{"old"};
    EXPECT_EQ("postconf: fatal: text\n",
              exactMessageOf<PostfixConfigurationError>([&] { m.getList("name", list); }));
    EXPECT_EQ(List{"old"}, list);
}

// --- setList

PROCESS_TEST_F(MainCfListTest, ListIsOneWriteUnderTheLock)
{
    managerOver("unused").setList("name", {"a", "b c", "d"});
    EXPECT_EQ((CommandLines{{postconfPath, "-e", "name=a, b c, d"}}), tools_.commandLines());
    EXPECT_TRUE(tools_.calls().at(0).lockHeld.at(mainCfLock));
}

PROCESS_TEST_F(MainCfListTest, OneElementIsWrittenAlone)
{
    managerOver("unused").setList("name", {"a"});
    EXPECT_EQ((CommandLines{{postconfPath, "-e", "name=a"}}), tools_.commandLines());
}

PROCESS_TEST_F(MainCfListTest, EmptyListSetsTheParameterToNothing)
{
    managerOver("unused").setList("name", {});
    EXPECT_EQ((CommandLines{{postconfPath, "-e", "name="}}), tools_.commandLines());
}

PROCESS_TEST_F(MainCfListTest, EmptyElementsAreWrittenAsTheyAre)
{
    managerOver("unused").setList("name", {"", "a", "", ""});
    EXPECT_EQ((CommandLines{{postconfPath, "-e", "name=, a, , "}}), tools_.commandLines());
}

// --- transformList

PROCESS_TEST_F(MainCfListTest, TransformedElementsAreWritten)
{
    const bool written = managerOver("a,b c").transformList(
        "name", [](const std::string& element) { return element == "b" ? std::string("B") : element; });
    EXPECT_TRUE(written);
    EXPECT_EQ(readAndWrite("a, B, c"), tools_.commandLines());
}

PROCESS_TEST_F(MainCfListTest, UnchangedListIsNotWritten)
{
    const bool written =
        managerOver("a,b c").transformList("name", [](const std::string& element) { return element; });
    EXPECT_FALSE(written);
    EXPECT_EQ(readOnly(), tools_.commandLines());
}

// Every element is shown once, in order, the empty ones too.
PROCESS_TEST_F(MainCfListTest, TransformSeesEveryElementInOrder)
{
    List seen;
    managerOver("a,, b").transformList("name", [&seen](const std::string& element) {
        seen.push_back(element);
        return element;
    });
    EXPECT_EQ((List{"a", "", "", "b"}), seen);
}

PROCESS_TEST_F(MainCfListTest, EmptyResultDropsTheElement)
{
    const bool written = managerOver("a b c").transformList(
        "name", [](const std::string& element) { return element == "b" ? std::string() : element; });
    EXPECT_TRUE(written);
    EXPECT_EQ(readAndWrite("a, c"), tools_.commandLines());
}

PROCESS_TEST_F(MainCfListTest, AllElementsDroppedSetsTheParameterToNothing)
{
    const bool written =
        managerOver("a b").transformList("name", [](const std::string&) { return std::string(); });
    EXPECT_TRUE(written);
    EXPECT_EQ(readAndWrite(""), tools_.commandLines());
}

// An empty element that would be dropped is not a reason to write.
PROCESS_TEST_F(MainCfListTest, DroppingOnlyEmptyElementsIsNotAChange)
{
    EXPECT_FALSE(
        managerOver("a, , b").transformList("name", [](const std::string& element) { return element; }));
    EXPECT_EQ(readOnly(), tools_.commandLines());
}

PROCESS_TEST_F(MainCfListTest, EmptyElementsGoWhenTheListIsWritten)
{
    EXPECT_TRUE(managerOver("a,, b c").transformList(
        "name", [](const std::string& element) { return element == "c" ? std::string("C") : element; }));
    EXPECT_EQ(readAndWrite("a, b, C"), tools_.commandLines());
}

// An empty element that is given a text is a change like any other.
PROCESS_TEST_F(MainCfListTest, EmptyElementMayBecomeText)
{
    EXPECT_TRUE(managerOver("").transformList("name", [](const std::string&) { return std::string("new"); }));
    EXPECT_EQ(readAndWrite("new"), tools_.commandLines());
}

PROCESS_TEST_F(MainCfListTest, FailedReadLeavesMainCfAlone)
{
    MainCfManager& m = managerOver("a");
    tools_.answer(postconfPath, ToolAnswer::fails(1, ""));
    EXPECT_EQ("unknown error", exactMessageOf<PostfixConfigurationError>([&] {
                  m.transformList("name", [](const std::string&) { return std::string("new"); });
              }));
    EXPECT_EQ(readOnly(), tools_.commandLines());
}

// --- eq_tf and removeListElement

TEST(EqTfTest, EqualElementBecomesEmptyAndOthersStay)
{
    const eq_tf transform("Word");
    EXPECT_EQ("", transform("Word"));
    EXPECT_EQ("word", transform("word"));
    EXPECT_EQ("Word ", transform("Word "));
    EXPECT_EQ("Words", transform("Words"));
    EXPECT_EQ("", transform(""));
}

PROCESS_TEST_F(MainCfListTest, MiddleElementIsRemoved)
{
    EXPECT_EQ(readAndWrite("a, c"), runsOfRemoving("a, b, c", "b"));
}

PROCESS_TEST_F(MainCfListTest, EveryEqualElementIsRemoved)
{
    EXPECT_EQ(readAndWrite("a"), runsOfRemoving("b a,b\tb", "b"));
}

PROCESS_TEST_F(MainCfListTest, OnlyElementIsRemoved)
{
    EXPECT_EQ(readAndWrite(""), runsOfRemoving("b", "b"));
}

PROCESS_TEST_F(MainCfListTest, RemovingAnAbsentElementWritesNothing)
{
    EXPECT_EQ(readOnly(), runsOfRemoving("a, b, c", "d"));
    EXPECT_EQ(readOnly(), runsOfRemoving("a, b, c", "B"));
    EXPECT_EQ(readOnly(), runsOfRemoving("ab bc", "b"));
}

PROCESS_TEST_F(MainCfListTest, RemovingFromAnEmptyValueWritesNothing)
{
    EXPECT_EQ(readOnly(), runsOfRemoving("", "a"));
    EXPECT_EQ(readOnly(), runsOfRemoving("", ""));
}

PROCESS_TEST_F(MainCfListTest, EmptyElementsSurviveARemovalOfNothing)
{
    EXPECT_EQ(readOnly(), runsOfRemoving("a,,b", "c"));
}

PROCESS_TEST_F(MainCfListTest, EmptyElementsGoWithTheRemovedElement)
{
    EXPECT_EQ(readAndWrite("a, c"), runsOfRemoving("a,,b,,c", "b"));
}

// The empty element equals an empty value, and dropping it is not a change.
PROCESS_TEST_F(MainCfListTest, RemovingTheEmptyElementWritesNothing)
{
    EXPECT_EQ(readOnly(), runsOfRemoving("a,,b", ""));
}

PROCESS_TEST_F(MainCfListTest, RemovalTellsWhetherItWrote)
{
    MainCfManager& m = managerOver("a b");
    EXPECT_TRUE(m.removeListElement("name", "a"));
    EXPECT_FALSE(m.removeListElement("name", "c"));
}

// --- appendStringValue

PROCESS_TEST_F(MainCfListTest, NewElementFollowsTheValueAsItStands)
{
    EXPECT_EQ(readAndWrite("a b, c"), runsOfAppending("a b", "c"));
    EXPECT_EQ(readAndWrite("a,,\tb, c"), runsOfAppending("a,,\tb", "c"));
    EXPECT_EQ(readAndWrite("a,\n    b, c"), runsOfAppending("a,\n    b", "c"));
}

PROCESS_TEST_F(MainCfListTest, FirstElementStandsAlone)
{
    EXPECT_EQ(readAndWrite("c"), runsOfAppending("", "c"));
}

PROCESS_TEST_F(MainCfListTest, PresentElementWritesNothing)
{
    EXPECT_EQ(readOnly(), runsOfAppending("a b", "b"));
    EXPECT_EQ(readOnly(), runsOfAppending("a,b,c", "b"));
    EXPECT_EQ(readOnly(), runsOfAppending("a\tb", "a"));
}

PROCESS_TEST_F(MainCfListTest, PresenceIsByteWise)
{
    EXPECT_EQ(readAndWrite("abc A, a"), runsOfAppending("abc A", "a"));
}

PROCESS_TEST_F(MainCfListTest, PresentNetworkIsWrittenBackUnchanged)
{
    EXPECT_EQ(readAndWrite("127.0.0.0/8,\t192.0.2.0/24  10.0.0.0/8", "mynetworks"),
              runsOfAppending("127.0.0.0/8,\t192.0.2.0/24  10.0.0.0/8", "192.0.2.0/24", "mynetworks"));
}

PROCESS_TEST_F(MainCfListTest, NewNetworkIsAppendedLikeAnyElement)
{
    EXPECT_EQ(readAndWrite("127.0.0.0/8, 192.0.2.0/24", "mynetworks"),
              runsOfAppending("127.0.0.0/8", "192.0.2.0/24", "mynetworks"));
}

PROCESS_TEST_F(MainCfListTest, OnlyTheExactNameIsWrittenBack)
{
    EXPECT_EQ(readOnly("mynetworks_style"), runsOfAppending("subnet", "subnet", "mynetworks_style"));
    EXPECT_EQ(readOnly("Mynetworks"), runsOfAppending("a", "a", "Mynetworks"));
}

PROCESS_TEST_F(MainCfListTest, FailedReadAppendsNothing)
{
    MainCfManager& m = managerOver("a");
    tools_.answer(postconfPath, ToolAnswer::fails(1, ""));
    EXPECT_EQ("unknown error",
              exactMessageOf<PostfixConfigurationError>([&] { m.appendStringValue("name", "b"); }));
    EXPECT_EQ(readOnly(), tools_.commandLines());
}

PROCESS_TEST_F(MainCfListTest, FailedWriteIsPassedOn)
{
    MainCfManager& m = managerOver("a");
    tools_.answer(postconfPath, {"-e", "name=a, b"}, ToolAnswer::fails(1, "postconf: fatal: text\n"));
    EXPECT_EQ("postconf: fatal: text\n",
              exactMessageOf<PostfixConfigurationError>([&] { m.appendStringValue("name", "b"); }));
    EXPECT_EQ(readAndWrite("a, b"), tools_.commandLines());
}

// --- compound elements

PROCESS_TEST_F(MainCfListTest, NewCompoundElementIsAppended)
{
    EXPECT_EQ(readAndWrite("permit_mynetworks, check_client_access hash:/x"),
              runsOfCompound("permit_mynetworks", "check_client_access", "hash:/x"));
}

// Split at commas alone, trimmed, joined anew; blanks inside an element stay.
PROCESS_TEST_F(MainCfListTest, ElementsAreTrimmedWhenACompoundOneIsAdded)
{
    EXPECT_EQ(readAndWrite("a  b\tc, d, e, k v"), runsOfCompound("a  b\tc  ,d\n,\t\n e", "k", "v"));
}

PROCESS_TEST_F(MainCfListTest, EmptyElementsStayWhenACompoundOneIsAdded)
{
    EXPECT_EQ(readAndWrite("a, , b, , k v"), runsOfCompound("a,,b,", "k", "v"));
}

// The one element of an empty value is empty and stays too.
PROCESS_TEST_F(MainCfListTest, EmptyValueKeepsItsEmptyElementBeforeACompoundOne)
{
    EXPECT_EQ(readAndWrite(", k v"), runsOfCompound("", "k", "v"));
}

PROCESS_TEST_F(MainCfListTest, PresentCompoundElementWritesNothing)
{
    EXPECT_EQ(readOnly(), runsOfCompound("a,   k v\t, b", "k", "v"));
    EXPECT_EQ(readOnly(), runsOfCompound("k v", "k", "v"));
    EXPECT_EQ(readOnly(), runsOfCompound("a,\n    k v", "k", "v"));
}

PROCESS_TEST_F(MainCfListTest, SameKeyWithAnotherValueIsAnotherElement)
{
    EXPECT_EQ(readAndWrite("k other, k v"), runsOfCompound("k other", "k", "v"));
    EXPECT_EQ(readAndWrite("k  v, k v"), runsOfCompound("k  v", "k", "v"));
    EXPECT_EQ(readAndWrite("K v, k v"), runsOfCompound("K v", "k", "v"));
    EXPECT_EQ(readAndWrite("k v w, k v"), runsOfCompound("k v w", "k", "v"));
}

// Words that are separated only by blanks are one element here.
PROCESS_TEST_F(MainCfListTest, BlanksDoNotSeparateCompoundElements)
{
    EXPECT_EQ(readAndWrite("a k v, k v"), runsOfCompound("a k v", "k", "v"));
}

PROCESS_TEST_F(MainCfListTest, CompoundElementIsTrimmedAtItsEndOnly)
{
    EXPECT_EQ(readAndWrite("a, k"), runsOfCompound("a", "k", ""));
    EXPECT_EQ(readAndWrite("a, k v w"), runsOfCompound("a", "k", "v w \t\n"));
    EXPECT_EQ(readAndWrite("a,  k v"), runsOfCompound("a", " k", "v"));
}

PROCESS_TEST_F(MainCfListTest, KeyWithoutValueIsFound)
{
    EXPECT_EQ(readOnly(), runsOfCompound("a, k ,b", "k", ""));
}

PROCESS_TEST_F(MainCfListTest, AppenderStartsWithNothingSeen)
{
    const std::string key = "k", value = "v";
    const SingleCompoundStringValueAppender appender(key, value);
    EXPECT_FALSE(appender.found());
    EXPECT_FALSE(appender.appended());
}

PROCESS_TEST_F(MainCfListTest, AppenderRemembersWhatItFound)
{
    const std::string key = "k", value = "v";
    SingleCompoundStringValueAppender appender(key, value);
    List list{"a", "k v"};
    for (const std::string& element : list)
        appender(element);
    EXPECT_FALSE(appender.finish(list));
    EXPECT_TRUE(appender.found());
    EXPECT_FALSE(appender.appended());
    EXPECT_EQ((List{"a", "k v"}), list);
}

PROCESS_TEST_F(MainCfListTest, AppenderRemembersWhatItAdded)
{
    const std::string key = "k", value = "v";
    SingleCompoundStringValueAppender appender(key, value);
    List list{"a", "k w"};
    for (const std::string& element : list)
        appender(element);
    EXPECT_TRUE(appender.finish(list));
    EXPECT_FALSE(appender.found());
    EXPECT_TRUE(appender.appended());
    EXPECT_EQ((List{"a", "k w", "k v"}), list);
}

// --- filterStringValues

struct RecordingFilter {
    void operator()(const std::string& element) { seen.push_back(element); }
    bool finish(List& list)
    {
        list.push_back("added");
        return write;
    }

    bool write;
    List seen;
};

PROCESS_TEST_F(MainCfListTest, FilterSeesTrimmedElementsAndMayAddOne)
{
    RecordingFilter filter{true, {}};
    managerOver("a b ,, \t c\n").filterStringValues("name", filter);
    EXPECT_EQ((List{"a b", "", "c"}), filter.seen);
    EXPECT_EQ(readAndWrite("a b, , c, added"), tools_.commandLines());
}

PROCESS_TEST_F(MainCfListTest, FilterMayDeclineTheWrite)
{
    RecordingFilter filter{false, {}};
    managerOver("a").filterStringValues("name", filter);
    EXPECT_EQ(readOnly(), tools_.commandLines());
}

// --- with the real postconf

class MainCfListPostfixTest : public support::FreshProcessTest {
protected:
    static void set(const std::string& text)
    {
        std::string kept =
            support::outputOf("grep -vE '^(mynetworks|smtpd_recipient_restrictions) ' /etc/postfix/main.cf");
        support::writeFile(support::mainCfPath, kept + text);
        support::ageMainCf();
    }

    static MainCfManager& manager()
    {
        support::ageMainCf();
        return MainCfManager::getInstance();
    }

    /// The lines of main.cf that set `name`, as postconf(1) leaves them.
    static std::string line(const std::string& name)
    {
        return support::outputOf("grep '^" + name + " ' /etc/postfix/main.cf");
    }
};

PROCESS_TEST_F(MainCfListPostfixTest, NetworkIsAppendedAndRemoved)
{
    set("mynetworks = 127.0.0.0/8 [::1]/128\n");
    manager().appendStringValue("mynetworks", "192.0.2.0/24");
    EXPECT_EQ("mynetworks = 127.0.0.0/8 [::1]/128, 192.0.2.0/24\n", line("mynetworks"));
    EXPECT_TRUE(manager().removeListElement("mynetworks", "[::1]/128"));
    EXPECT_EQ("mynetworks = 127.0.0.0/8, 192.0.2.0/24\n", line("mynetworks"));
    support::ageMainCf();
    EXPECT_EQ("127.0.0.0/8, 192.0.2.0/24\n",
              support::outputOf(support::postconfPath + std::string(" -h mynetworks")));
}

// The default becomes explicit although its element is there already.
PROCESS_TEST_F(MainCfListPostfixTest, DefaultNetworksAreMadeExplicit)
{
    set("");
    ASSERT_FALSE(manager().isValueConfigured("mynetworks"));
    const std::string byDefault = manager().getStringValue("mynetworks", false, false);
    List list;
    manager().getList("mynetworks", list);
    ASSERT_FALSE(list.front().empty());
    manager().appendStringValue("mynetworks", list.front());
    EXPECT_EQ("mynetworks = " + byDefault + "\n", line("mynetworks"));
}

PROCESS_TEST_F(MainCfListPostfixTest, RestrictionWithTableIsAppendedOnce)
{
    set("smtpd_recipient_restrictions = permit_mynetworks,reject_unauth_destination\n");
    manager().appendCompoundStringValue("smtpd_recipient_restrictions", "check_client_access", "hash:/x");
    const std::string expected =
        "smtpd_recipient_restrictions = permit_mynetworks, reject_unauth_destination, "
        "check_client_access hash:/x\n";
    EXPECT_EQ(expected, line("smtpd_recipient_restrictions"));
    manager().appendCompoundStringValue("smtpd_recipient_restrictions", "check_client_access", "hash:/x");
    EXPECT_EQ(expected, line("smtpd_recipient_restrictions"));
}

PROCESS_TEST_F(MainCfListPostfixTest, MultiLineValueIsReadAndNormalised)
{
    set("smtpd_recipient_restrictions = permit_mynetworks,\n    permit_sasl_authenticated\n\treject\n");
    List list;
    manager().getList("smtpd_recipient_restrictions", list);
    EXPECT_EQ((List{"permit_mynetworks", "", "permit_sasl_authenticated", "reject"}), list);
    EXPECT_TRUE(manager().removeListElement("smtpd_recipient_restrictions", "permit_sasl_authenticated"));
    EXPECT_EQ("smtpd_recipient_restrictions = permit_mynetworks, reject\n",
              line("smtpd_recipient_restrictions"));
    EXPECT_EQ(std::string::npos, support::readFile(support::mainCfPath).find("\treject"));
}

PROCESS_TEST_F(MainCfListPostfixTest, AbsentElementLeavesMainCfUntouched)
{
    set("mynetworks = 127.0.0.0/8,, [::1]/128\n");
    const std::string before = support::readFile(support::mainCfPath);
    EXPECT_FALSE(manager().removeListElement("mynetworks", "192.0.2.0/24"));
    EXPECT_EQ(before, support::readFile(support::mainCfPath));
}

PROCESS_TEST_F(MainCfListPostfixTest, EmptyListIsAnEmptyValue)
{
    set("mynetworks = 127.0.0.0/8\n");
    manager().setList("mynetworks", {});
    EXPECT_EQ("mynetworks =\n", support::outputOf("sed -n 's/ *$//; /^mynetworks /p' /etc/postfix/main.cf"));
    support::ageMainCf();
    EXPECT_EQ("", manager().getStringValue("mynetworks", false, false));
}

} // namespace
