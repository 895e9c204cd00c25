// The small shared grammars: how much of a text each takes, and what it leaves.
#include "postfix/CommonParsers.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace zorvo::parser;

/// Number of characters that `parser` takes from the beginning of `text`; -1 when it does not match.
template <class Parser>
long taken(const Parser& parser, const std::string& text)
{
    const char* const begin = text.data();
    const auto info = classic::parse(begin, begin + text.size(), parser);
    return info.hit ? static_cast<long>(info.length) : -1;
}

TEST(CommonParsersTest, BlanksAreTabBlankAndCarriageReturn)
{
    for (int code = 0; code < 256; ++code) {
        const char c = static_cast<char>(code);
        const bool expected = c == '\t' || c == ' ' || c == '\r';
        EXPECT_EQ(expected ? 1 : -1, taken(swsp_p, std::string(1, c))) << code;
    }
}

TEST(CommonParsersTest, LineFeedIsTen)
{
    for (int code = 0; code < 256; ++code)
        EXPECT_EQ(code == 10 ? 1 : -1, taken(lf_p, std::string(1, static_cast<char>(code)))) << code;
}

TEST(CommonParsersTest, CommentEndsBeforeLineFeed)
{
    EXPECT_EQ(9, taken(comments_p, "# comment\nnext"));
    EXPECT_EQ(1, taken(comments_p, "#\n"));
    EXPECT_EQ(1, taken(comments_p, "#"));
}

// A carriage return, a NUL, another "#": all of them are comment text.
TEST(CommonParsersTest, CommentTakesEveryOtherCharacter)
{
    for (int code = 0; code < 256; ++code)
        EXPECT_EQ(code == 10 ? 1 : 3, taken(comments_p, std::string("#") + static_cast<char>(code) + "x"))
            << code;
}

TEST(CommonParsersTest, CommentNeedsItsNumberSign)
{
    EXPECT_EQ(-1, taken(comments_p, ""));
    EXPECT_EQ(-1, taken(comments_p, " # comment"));
    EXPECT_EQ(-1, taken(comments_p, "text # comment"));
}

TEST(CommonParsersTest, EmptyLineTakesBlanksOrNothing)
{
    EXPECT_EQ(0, taken(empty_line_p, ""));
    EXPECT_EQ(0, taken(empty_line_p, "\n"));
    EXPECT_EQ(0, taken(empty_line_p, "text"));
    EXPECT_EQ(4, taken(empty_line_p, " \t\r \n "));
    EXPECT_EQ(2, taken(empty_line_p, "  text"));
    EXPECT_EQ(1, taken(empty_line_p, " \v"));
}

TEST(CommonParsersTest, CommentLineMayBeginWithBlanks)
{
    EXPECT_EQ(5, taken(comments_line_p, "# abc\n"));
    EXPECT_EQ(8, taken(comments_line_p, " \t\r# abc\n"));
    EXPECT_EQ(-1, taken(comments_line_p, "   \n"));
    EXPECT_EQ(-1, taken(comments_line_p, "  text # abc"));
    EXPECT_EQ(-1, taken(comments_line_p, "\n# abc"));
}

TEST(CommonParsersTest, SpacesMayBeNothing)
{
    EXPECT_EQ(0, taken(continuous_spaces_p, ""));
    EXPECT_EQ(0, taken(continuous_spaces_p, "word"));
    EXPECT_EQ(0, taken(continuous_spaces_p, "\n"));
    EXPECT_EQ(0, taken(continuous_spaces_p, "\nword"));
}

TEST(CommonParsersTest, SpacesAreBlanksOnOneLine)
{
    EXPECT_EQ(3, taken(continuous_spaces_p, " \t word"));
    EXPECT_EQ(2, taken(continuous_spaces_p, " \r\nword"));
}

TEST(CommonParsersTest, SpacesContinueOverALineThatBeginsWithABlank)
{
    EXPECT_EQ(2, taken(continuous_spaces_p, "\n word"));
    EXPECT_EQ(2, taken(continuous_spaces_p, "\n\tword"));
    EXPECT_EQ(2, taken(continuous_spaces_p, "\n\rword"));
    EXPECT_EQ(6, taken(continuous_spaces_p, "  \r\n  word"));
}

TEST(CommonParsersTest, SpacesTakeCommentBeforeContinuation)
{
    EXPECT_EQ(12, taken(continuous_spaces_p, " # comment\n word"));
    EXPECT_EQ(10, taken(continuous_spaces_p, "#comment\n word"));
}

// A comment without continuation is still taken; what follows decides whether that was right.
TEST(CommonParsersTest, SpacesTakeCommentWithoutContinuation)
{
    EXPECT_EQ(10, taken(continuous_spaces_p, " # comment\nword"));
    EXPECT_EQ(10, taken(continuous_spaces_p, " # comment"));
}

// Blank and comment lines before the continuation are taken, with or without blanks of their own.
TEST(CommonParsersTest, SpacesTakeLinesBeforeContinuation)
{
    EXPECT_EQ(4, taken(continuous_spaces_p, "\n\n\n word"));
    EXPECT_EQ(6, taken(continuous_spaces_p, "\n  \n\r word"));
    EXPECT_EQ(8, taken(continuous_spaces_p, "\n# abc\n word"));
    EXPECT_EQ(10, taken(continuous_spaces_p, "\n\n  # c\n \tword"));
    EXPECT_EQ(3, taken(continuous_spaces_p, "\n  "));
}

// Without a continuation after them these lines are left where they are.
TEST(CommonParsersTest, SpacesLeaveLinesWithoutContinuation)
{
    EXPECT_EQ(0, taken(continuous_spaces_p, "\n\n# abc\nword"));
    EXPECT_EQ(2, taken(continuous_spaces_p, "  \n\nword"));
    EXPECT_EQ(8, taken(continuous_spaces_p, "  # text\n  # abc\n\nword"));
    EXPECT_EQ(0, taken(continuous_spaces_p, "\n"));
}

} // namespace
