// Names and messages of the DNS.
#include "check/dns.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace zorvo::check {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::string number(unsigned value)
{
    return {static_cast<char>(value >> 8), static_cast<char>(value & 255)};
}

/// A record of the name that the question has, in compressed form.
std::string record(ns_type type, const std::string& data)
{
    return number(0xc00c) + number(type) + number(ns_c_in) + number(0) + number(60) +
           number(static_cast<unsigned>(data.size())) + data;
}

/// A response to a question for "one.example", with these records as its answer section.
std::string message(const std::vector<std::string>& records)
{
    std::string text = number(1) + number(0x8180) + number(1) +
                       number(static_cast<unsigned>(records.size())) + number(0) + number(0) +
                       std::string("\3one\7example\0", 13) + number(ns_t_a) + number(ns_c_in);
    for (const std::string& one : records)
        text += one;
    return text;
}

std::vector<std::string> read(ns_type type, const std::string& bytes)
{
    return recordsOf(type, reinterpret_cast<const unsigned char*>(bytes.data()),
                     static_cast<int>(bytes.size()));
}

const std::string name2("\3Two\7example\0", 13);

} // namespace

TEST(FoldedNameTest, IsInLowerCaseWithoutTheDotAtTheEnd)
{
    EXPECT_EQ("one.example", foldedName("One.Example."));
    EXPECT_EQ("one", foldedName("one"));
    EXPECT_EQ("", foldedName("."));
    EXPECT_EQ("", foldedName(""));
}

TEST(ReverseNameTest, HasTheBytesOrHalfBytesInReverseOrder)
{
    EXPECT_EQ("200.2.0.192.in-addr.arpa", reverseName(Family::Ip4, "192.0.2.200"));
    EXPECT_EQ("f.1.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.8.b.d.0.1.0.0.2.ip6.arpa",
              reverseName(Family::Ip6, "2001:db8::1f"));
}

TEST(RecordsOfTest, EachTypeIsRead)
{
    EXPECT_THAT(read(ns_t_a, message({record(ns_t_a, "\xc0\1\2\3"), record(ns_t_a, "\xc0\1\2\4")})),
                ElementsAre("192.1.2.3", "192.1.2.4"));
    EXPECT_THAT(read(ns_t_aaaa, message({record(ns_t_aaaa, "\x20\1\xd\xb8" + std::string(12, '\0'))})),
                ElementsAre("2001:db8::"));
    EXPECT_THAT(read(ns_t_ptr, message({record(ns_t_ptr, name2)})), ElementsAre("two.example"));
    EXPECT_THAT(read(ns_t_mx, message({record(ns_t_mx, number(10) + name2)})), ElementsAre("two.example"));
    EXPECT_THAT(read(ns_t_txt, message({record(ns_t_txt, "\6v=spf1\5 -all")})), ElementsAre("v=spf1 -all"));
}

TEST(RecordsOfTest, RecordsOfOtherTypesAreLeftOut)
{
    EXPECT_THAT(read(ns_t_a, message({record(ns_t_cname, name2), record(ns_t_a, "\xc0\1\2\3")})),
                ElementsAre("192.1.2.3"));
    EXPECT_THAT(read(ns_t_txt, message({record(ns_t_a, "\xc0\1\2\3")})), IsEmpty());
}

TEST(RecordsOfTest, NamesAreEscapedAsInZoneFiles)
{
    EXPECT_THAT(read(ns_t_ptr, message({record(ns_t_ptr, std::string("\4a.\033\n\0", 6))})),
                ElementsAre("a\\.\\027\\010"));
}

TEST(RecordsOfTest, RecordsOfTheWrongLengthAreLeftOut)
{
    EXPECT_THAT(read(ns_t_a, message({record(ns_t_a, "\xc0\1\2"), record(ns_t_a, "")})), IsEmpty());
    EXPECT_THAT(read(ns_t_aaaa, message({record(ns_t_aaaa, "\xc0\1\2\3")})), IsEmpty());
    EXPECT_THAT(read(ns_t_mx, message({record(ns_t_mx, "\1"), record(ns_t_mx, number(1))})), IsEmpty());
    EXPECT_THAT(read(ns_t_txt, message({record(ns_t_txt, ""), record(ns_t_txt, "\2a")})), IsEmpty());
    EXPECT_THAT(read(ns_t_txt, message({record(ns_t_txt, "\1a\2b")})), ElementsAre("a"));
}

TEST(RecordsOfTest, MessageIsReadUpToWhereItBreaksOff)
{
    const std::string whole = message({record(ns_t_a, "\xc0\1\2\3"), record(ns_t_a, "\xc0\1\2\4")});
    for (size_t size = 0; size < whole.size(); ++size)
        EXPECT_LE(read(ns_t_a, whole.substr(0, size)).size(), 1U) << size;
    EXPECT_THAT(read(ns_t_ptr, message({record(ns_t_ptr, "\xc0\x7f")})), IsEmpty());
}

} // namespace zorvo::check
