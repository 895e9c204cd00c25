// Tables read through postmap: the runs of the tool, and how its output is read.
#include "postfix/TableReader.h"

#include "unit/postfix/ReaderTest.h"

namespace zorvo::mail::postfix {

namespace {

using support::postmapPath;
using support::ToolAnswer;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

class TableReaderTest : public support::ReaderTest {
protected:
    TableReaderTest() : ReaderTest(postmapPath) {}
};

} // namespace

TEST_F(TableReaderTest, ReadsAllRecordsInOneRun)
{
    tools.answer(postmapPath, ToolAnswer::prints(
                                  "@one.example\tzorvo-1:\n@two.example\tsmtp:[mail.example] \tx\n@bare\n"));
    EXPECT_THAT(TableReader::readAll("hash:/table"),
                UnorderedElementsAre(Pair("@one.example", "zorvo-1:"),
                                     Pair("@two.example", "smtp:[mail.example] \tx")));
    EXPECT_THAT(tools.commandLines(), ElementsAre(ElementsAre(postmapPath, "-s", "hash:/table")));
}

TEST_F(TableReaderTest, EmptyTableHasNoRecords)
{
    EXPECT_THAT(TableReader::readAll("hash:/table"), IsEmpty());
}

TEST_F(TableReaderTest, UnreadableTableThrowsTheToolsErrorOutput)
{
    tools.answer(postmapPath, ToolAnswer::fails(1, "postmap: fatal: open database /table.db: no\n"));
    try {
        (void)TableReader::readAll("hash:/table");
        FAIL() << "expected PostfixConfigurationError";
    } catch (const PostfixConfigurationError& e) {
        EXPECT_STREQ(e.what(), "postmap: fatal: open database /table.db: no\n");
    }
}

TEST_F(TableReaderTest, LooksUpAllKeysInOneRun)
{
    tools.answer(postmapPath, ToolAnswer::prints("@two.example\tsmtp:\n"));
    EXPECT_THAT(TableReader::lookUp("regexp:/table", {"@one.example", "", "@t\nwo", "@two.example"}),
                UnorderedElementsAre(Pair("@two.example", "smtp:")));
    const auto calls = tools.calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_THAT(calls[0].argv, ElementsAre(postmapPath, "-q", "-", "regexp:/table"));
    EXPECT_EQ(calls[0].input, "@one.example\n@two.example\n");
}

TEST_F(TableReaderTest, LookupWithoutKeysRunsNothing)
{
    EXPECT_THAT(TableReader::lookUp("hash:/table", {""}), IsEmpty());
    EXPECT_THAT(tools.commandLines(), IsEmpty());
}

TEST_F(TableReaderTest, KeysThatAreNotFoundAreNotAFailure)
{
    tools.answer(postmapPath, ToolAnswer::fails(1, ""));
    EXPECT_THAT(TableReader::lookUp("hash:/table", {"@one.example"}), IsEmpty());
}

TEST_F(TableReaderTest, FailedLookupThrowsTheToolsErrorOutput)
{
    tools.answer(postmapPath, ToolAnswer::fails(1, "postmap: fatal: open /table: no\n"));
    try {
        (void)TableReader::lookUp("regexp:/table", {"@one.example"});
        FAIL() << "expected PostfixDatabaseError";
    } catch (const PostfixDatabaseError& e) {
        EXPECT_STREQ(e.what(), "postmap: fatal: open /table: no\n");
    }
}

TEST_F(TableReaderTest, KilledLookupThrows)
{
    tools.answer(postmapPath, ToolAnswer::dies(9, ""));
    EXPECT_THROW((void)TableReader::lookUp("hash:/table", {"@one.example"}), PostfixDatabaseError);
}

} // namespace zorvo::mail::postfix
