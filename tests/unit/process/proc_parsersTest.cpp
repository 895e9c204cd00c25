// proc_parsers: the texts of /proc, well-formed and hostile.
#include "process/proc_parsers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

using testing::ElementsAre;
using zorvo::process::parseProcStat;
using zorvo::process::parseProcStatus;
using zorvo::process::splitCmdline;

TEST(ProcPidFdStrToIntTest, TakesPlainDecimalNumbersOnly)
{
    struct Case {
        const char* name;
        int number;
    };
    for (const Case& c : {Case{"0", 0},
                          Case{"1", 1},
                          Case{"9", 9},
                          Case{"10", 10},
                          Case{"255", 255},
                          Case{"1000000", 1000000},
                          Case{"2147483646", 2147483646},
                          Case{"2147483647", 2147483647},
                          Case{"2147483648", -1},
                          Case{"2147483650", -1},
                          Case{"4294967296", -1},
                          Case{"4294967297", -1},
                          Case{"9999999999", -1},
                          Case{"18446744073709551616", -1},
                          Case{"18446744073709551617", -1},
                          Case{"99999999999999999999999999999999", -1},
                          Case{"", -1},
                          Case{"00", -1},
                          Case{"01", -1},
                          Case{"007", -1},
                          Case{"-1", -1},
                          Case{"-0", -1},
                          Case{"+1", -1},
                          Case{" 1", -1},
                          Case{"1 ", -1},
                          Case{"1\n", -1},
                          Case{"1a", -1},
                          Case{"a", -1},
                          Case{"0x1", -1},
                          Case{"1.0", -1},
                          Case{".", -1},
                          Case{"..", -1},
                          Case{"\xb2", -1}}) {
        EXPECT_EQ(proc_pid_fd_str_to_int(c.name), c.number) << '"' << c.name << '"';
    }
}

TEST(ParseProcStatTest, NameAndParent)
{
    struct Case {
        std::string text;
        std::string command;
        int parent;
    };
    const std::string name(4096, 'n');
    for (const Case& c :
         {Case{"5 (sh) S 4 5 5 0", "sh", 4},
          Case{"5 (sh) S 4", "sh", 4},
          Case{"5 (sh) S", "sh", -1},
          Case{"5 (sh)", "sh", -1},
          Case{"5 (sh", "sh", -1},
          Case{"5 (two words) S 4", "two", -1},
          Case{"5 (two\twords) S 4", "two", -1},
          Case{"5 (two\nwords) S 4", "two", -1},
          Case{"5 (a 9 6) S 4", "a", 6}, // "9" stands where the state is, 6 where the parent is.
          Case{"5 (a) S 6 (b) S 4", "a", 6},
          Case{"5 ( sh) S 4", "sh", 4},
          Case{"5 ((x)) S 4", "(x)", 4},
          Case{"5 (x)) S 4", "x)", 4},
          Case{"5 () S 4", "", 4},
          Case{"5 ()) S 4", ")", 4},
          Case{"5(sh) S 4", "sh", 4}, // A blank in the pattern matches no blank, too.
          Case{"-5 (sh) S 4", "sh", 4},
          Case{"5 (sh) S -4", "sh", -4},
          Case{"5 (" + name + ") S 4", name, -1},
          Case{"5 (" + name + "n) S 4", name, -1},
          Case{"5 (" + name.substr(1) + ") S 4", name.substr(1), 4}}) {
        std::string command = "unchanged";
        int parent = -99;
        EXPECT_TRUE(parseProcStat(c.text, command, parent)) << c.text;
        EXPECT_EQ(command, c.command) << c.text;
        EXPECT_EQ(parent, c.parent) << c.text;
    }
}

TEST(ParseProcStatTest, WithoutANameNothingIsChanged)
{
    for (const std::string text :
         {"", " ", "5", "5 ", "5 (", "5 ( ", "sh", "(sh) S 4", "x (sh) S 4", "5 sh S 4"}) {
        std::string command = "unchanged";
        int parent = -99;
        EXPECT_FALSE(parseProcStat(text, command, parent)) << text;
        EXPECT_EQ(command, "unchanged") << text;
        EXPECT_EQ(parent, -99) << text;
    }
}

TEST(ParseProcStatusTest, IdsAreFoundInAnyOrder)
{
    for (const char* const text : {"Name:\tx\nUid:\t1\t2\t3\t4\nGid:\t5\t6\t7\t8\nMore:\t9\n",
                                   "Gid: 5 6 7 8 Uid: 1 2 3 4", "Uid:\n1\n2\n3\n4\nGid:5 Gid: 5 6 7 8"}) {
        int uid[4] = {};
        int gid[4] = {};
        EXPECT_TRUE(parseProcStatus(text, uid, gid)) << text;
        EXPECT_THAT(uid, ElementsAre(1, 2, 3, 4)) << text;
        EXPECT_THAT(gid, ElementsAre(5, 6, 7, 8)) << text;
    }
}

TEST(ParseProcStatusTest, LargestKernelIdIsMinusOne)
{
    int uid[4] = {};
    int gid[4] = {};
    EXPECT_TRUE(parseProcStatus("Uid: 4294967295 4294967294 2147483648 0 Gid: 2147483647 0 0 -1", uid, gid));
    EXPECT_THAT(uid, ElementsAre(-1, -2, -2147483647 - 1, 0));
    EXPECT_THAT(gid, ElementsAre(2147483647, 0, 0, -1));
}

TEST(ParseProcStatusTest, BothAreNeeded)
{
    for (const char* const text :
         {"", "Uid: 1 2 3 4", "Gid: 1 2 3 4", "Uid: 1 2 3 Gid: 5 6 7 8", "Uid: 1 2 3 4 Gid: 5 6 7",
          "uid: 1 2 3 4 gid: 5 6 7 8", "XUid: 1 2 3 4 Gid: 5 6 7 8"}) {
        int uid[4] = {};
        int gid[4] = {};
        EXPECT_FALSE(parseProcStatus(text, uid, gid)) << text;
    }
}

TEST(SplitCmdlineTest, EveryNulEndsAnArgument)
{
    const auto split = [](std::string text) {
        std::vector<char*> argv = {nullptr, nullptr}; // Whatever was there before.
        splitCmdline(text, argv);
        EXPECT_FALSE(argv.empty());
        EXPECT_EQ(argv.back(), nullptr);
        argv.pop_back();
        return std::vector<std::string>(argv.begin(), argv.end());
    };
    EXPECT_THAT(split(""), ElementsAre());
    EXPECT_THAT(split(std::string("a\0", 2)), ElementsAre("a"));
    EXPECT_THAT(split("a"), ElementsAre("a"));
    EXPECT_THAT(split(std::string("a\0b c\0", 6)), ElementsAre("a", "b c"));
    EXPECT_THAT(split(std::string("a\0b", 3)), ElementsAre("a", "b"));
    EXPECT_THAT(split(std::string("\0", 1)), ElementsAre(""));
    EXPECT_THAT(split(std::string("a\0\0b\0\0", 6)), ElementsAre("a", "", "b", ""));
}
