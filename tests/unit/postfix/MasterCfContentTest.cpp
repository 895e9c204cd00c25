// MasterCfContent: raw lines and the index of services, kept together.
#include "postfix/MasterCfContent.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace zorvo::mail::postfix;

using Lines = std::list<std::string>;

ModuleInfo service(const std::string& name, ModuleType type, const std::string& command = "smtpd")
{
    ModuleInfo info;
    info.name = name;
    info.type = type;
    info.command = {command};
    return info;
}

std::vector<std::string> keysOf(const MasterCfContent& content)
{
    std::vector<std::string> keys;
    for (const ModuleInfo& info : content.modules())
        keys.push_back(info.name + '/' + typeKeyword(info.type));
    return keys;
}

std::string absenceMessage(const MasterCfContent& content, const std::string& name, ModuleType type)
{
    try {
        content.getModule(name, type);
    } catch (const std::out_of_range& e) {
        return e.what();
    }
    return "(no std::out_of_range)";
}

TEST(MasterCfContentTest, NewContentIsEmpty)
{
    const MasterCfContent content;
    EXPECT_TRUE(content.rawLines().empty());
    EXPECT_TRUE(content.modules().empty());
    EXPECT_FALSE(content.hasModule("smtp", ModuleType::Inet));
}

TEST(MasterCfContentTest, RawLinesKeepTextAndOrder)
{
    MasterCfContent content;
    content.addRawLine("# comment\t ");
    content.addRawLine("");
    content.addRawLine("  ");
    content.addRawLine("# comment\t ");
    EXPECT_EQ((Lines{"# comment\t ", "", "  ", "# comment\t "}), content.rawLines());
    EXPECT_TRUE(content.modules().empty());
}

TEST(MasterCfContentTest, NewServiceBecomesLastLine)
{
    MasterCfContent content;
    content.addRawLine("# above");
    content.addModule(service("smtp", ModuleType::Inet), "smtp inet n - n - - smtpd");
    content.addRawLine("# below");
    content.addModule(service("cleanup", ModuleType::Unix), "cleanup text");
    EXPECT_EQ((Lines{"# above", "smtp inet n - n - - smtpd", "# below", "cleanup text"}), content.rawLines());
}

// The text comes from the caller; it is not made from the entry.
TEST(MasterCfContentTest, ServiceIsReturnedWithItsOwnText)
{
    MasterCfContent content;
    ModuleInfo info = service("smtp", ModuleType::Unix, "smtp");
    info.maxProc = 7;
    content.addModule(info, "smtp  unix  -\t- n\n  - 7 smtp");
    const auto found = content.getModule("smtp", ModuleType::Unix);
    EXPECT_EQ("smtp", found.first.name);
    EXPECT_EQ(ModuleType::Unix, found.first.type);
    EXPECT_EQ(7, found.first.maxProc);
    EXPECT_EQ("smtp  unix  -\t- n\n  - 7 smtp", found.second);
    EXPECT_EQ(&content.rawLines().front(), &found.second);
}

// A known service is replaced in its place: data and text change, the number of lines does not.
TEST(MasterCfContentTest, KnownServiceIsReplacedInPlace)
{
    MasterCfContent content;
    content.addModule(service("a", ModuleType::Unix, "old"), "old text");
    content.addRawLine("# between");
    content.addModule(service("b", ModuleType::Unix), "b text");
    content.addModule(service("a", ModuleType::Unix, "new"), "new text");
    EXPECT_EQ((Lines{"new text", "# between", "b text"}), content.rawLines());
    EXPECT_EQ(std::list<std::string>{"new"}, content.getModule("a", ModuleType::Unix).first.command);
    EXPECT_EQ("new text", content.getModule("a", ModuleType::Unix).second);
    EXPECT_EQ((std::vector<std::string>{"a/unix", "b/unix"}), keysOf(content));
}

// Every field of the entry is replaced, also back to its default.
TEST(MasterCfContentTest, ReplacingServiceReplacesAllOfItsData)
{
    MasterCfContent content;
    ModuleInfo full = service("a", ModuleType::Unix);
    full.privateMode = true;
    full.unprivileged = true;
    full.chroot = true;
    full.wakeup = 60;
    full.wakeupIfUsed = true;
    full.maxProc = 5;
    content.addModule(full, "full");
    content.addModule(service("a", ModuleType::Unix), "bare");
    EXPECT_EQ("a unix - - n - - smtpd", formatServiceLine(content.getModule("a", ModuleType::Unix).first));
}

TEST(MasterCfContentTest, OneNameWithTwoTypesIsTwoServices)
{
    MasterCfContent content;
    content.addModule(service("smtp", ModuleType::Inet, "smtpd"), "inet text");
    content.addModule(service("smtp", ModuleType::Unix, "smtp"), "unix text");
    EXPECT_TRUE(content.hasModule("smtp", ModuleType::Inet));
    EXPECT_TRUE(content.hasModule("smtp", ModuleType::Unix));
    EXPECT_FALSE(content.hasModule("smtp", ModuleType::UnixDgram));
    EXPECT_FALSE(content.hasModule("smtp", ModuleType::Fifo));
    EXPECT_FALSE(content.hasModule("smtp", ModuleType::Pass));
    EXPECT_EQ("inet text", content.getModule("smtp", ModuleType::Inet).second);
    EXPECT_EQ("unix text", content.getModule("smtp", ModuleType::Unix).second);
}

TEST(MasterCfContentTest, RemovingOneTypeLeavesTheOther)
{
    MasterCfContent content;
    content.addModule(service("smtp", ModuleType::Inet), "inet text");
    content.addModule(service("smtp", ModuleType::Unix), "unix text");
    EXPECT_TRUE(content.removeModule("smtp", ModuleType::Inet));
    EXPECT_FALSE(content.hasModule("smtp", ModuleType::Inet));
    EXPECT_TRUE(content.hasModule("smtp", ModuleType::Unix));
    EXPECT_EQ(Lines{"unix text"}, content.rawLines());
}

// Of two equal lines, the one of the service is removed.
TEST(MasterCfContentTest, RemovingServiceRemovesItsLineOnly)
{
    MasterCfContent content;
    content.addRawLine("a text");
    content.addRawLine("# comment above a");
    content.addModule(service("a", ModuleType::Unix), "a text");
    content.addRawLine("");
    EXPECT_TRUE(content.removeModule("a", ModuleType::Unix));
    EXPECT_EQ((Lines{"a text", "# comment above a", ""}), content.rawLines());
    EXPECT_TRUE(content.modules().empty());
    EXPECT_EQ("no such module a", absenceMessage(content, "a", ModuleType::Unix));
}

TEST(MasterCfContentTest, RemovingUnknownServiceChangesNothing)
{
    MasterCfContent content;
    content.addRawLine("# comment");
    content.addModule(service("a", ModuleType::Unix), "a text");
    EXPECT_FALSE(content.removeModule("a", ModuleType::Inet));
    EXPECT_FALSE(content.removeModule("A", ModuleType::Unix));
    EXPECT_FALSE(content.removeModule("", ModuleType::Unix));
    EXPECT_EQ((Lines{"# comment", "a text"}), content.rawLines());
    EXPECT_EQ(std::vector<std::string>{"a/unix"}, keysOf(content));
}

TEST(MasterCfContentTest, RemovedServiceComesBackAtTheEnd)
{
    MasterCfContent content;
    content.addModule(service("a", ModuleType::Unix), "a text");
    content.addModule(service("b", ModuleType::Unix), "b text");
    content.removeModule("a", ModuleType::Unix);
    content.addModule(service("a", ModuleType::Unix), "a again");
    EXPECT_EQ((Lines{"b text", "a again"}), content.rawLines());
}

// The type is not part of the message.
TEST(MasterCfContentTest, AbsentServiceIsNamed)
{
    MasterCfContent content;
    content.addModule(service("smtp", ModuleType::Inet), "text");
    EXPECT_EQ("no such module smtp", absenceMessage(content, "smtp", ModuleType::Unix));
    EXPECT_EQ("no such module other", absenceMessage(content, "other", ModuleType::Inet));
    EXPECT_EQ("no such module ", absenceMessage(content, "", ModuleType::Inet));
}

// Key order: the name first, then the type's value; not file order.
TEST(MasterCfContentTest, ModulesComeInKeyOrder)
{
    MasterCfContent content;
    content.addModule(service("b", ModuleType::Inet), "1");
    content.addModule(service("a", ModuleType::Pass), "2");
    content.addModule(service("a", ModuleType::Fifo), "3");
    content.addModule(service("a", ModuleType::Inet), "4");
    content.addModule(service("a", ModuleType::UnixDgram), "5");
    content.addModule(service("a", ModuleType::Unix), "6");
    content.addModule(service("a-", ModuleType::Inet), "7");
    content.addModule(service("a.", ModuleType::Inet), "8");
    content.addModule(service("a0", ModuleType::Inet), "9");
    content.addModule(service("a:", ModuleType::Inet), "10");
    content.addModule(service("a_", ModuleType::Inet), "11");
    content.addModule(service("aa", ModuleType::Inet), "12");
    EXPECT_EQ((std::vector<std::string>{"a/inet", "a/unix", "a/unix-dgram", "a/fifo", "a/pass", "a-/inet",
                                        "a./inet", "a0/inet", "a:/inet", "a_/inet", "aa/inet", "b/inet"}),
              keysOf(content));
}

// What modules() returned stays as it was.
TEST(MasterCfContentTest, ModulesAreCopies)
{
    MasterCfContent content;
    content.addModule(service("a", ModuleType::Unix), "a text");
    content.addModule(service("b", ModuleType::Unix), "b text");
    for (const ModuleInfo& info : content.modules())
        content.removeModule(info.name, info.type);
    EXPECT_TRUE(content.rawLines().empty());
    EXPECT_TRUE(content.modules().empty());
}

} // namespace
