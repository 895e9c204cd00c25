// BatchDatabaseHelper: what is passed on at once, what is collected, and how it is committed.
#include "postfix/BatchDatabaseHelper.h"

#include "postfix/PostfixError.h"
#include "unit/postfix/PostfixTestTools.h"
#include "unit/postfix/ToolStandIns.h"

#include "support/FixedPaths.h"
#include "support/ScratchDir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <string>
#include <vector>

namespace {

// Allocations of this size and more fail while it is not 0.
size_t refusedSize = 0;

void* allocate(size_t size)
{
    if (refusedSize != 0 && size >= refusedSize)
        throw std::bad_alloc();
    void* const block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr)
        throw std::bad_alloc();
    return block;
}

} // namespace

void* operator new(size_t size)
{
    return allocate(size);
}

// std::stable_sort asks with it; a sanitizer's own would not go with the operators below.
void* operator new(size_t size, const std::nothrow_t&) noexcept
{
    return std::malloc(size == 0 ? 1 : size);
}

void operator delete(void* block) noexcept
{
    std::free(block);
}

void operator delete(void* block, const std::nothrow_t&) noexcept
{
    std::free(block);
}

void operator delete(void* block, size_t) noexcept
{
    std::free(block);
}

namespace {

using support::exactMessageOf;
using support::postmapPath;
using support::ToolAnswer;
using namespace zorvo::mail::postfix;

using CommandLines = std::vector<std::vector<std::string>>;

class BatchDatabaseHelperTest : public testing::Test {
protected:
    BatchDatabaseHelperTest()
    {
        tools_.replace(postmapPath);
        tools_.watchFile(scratch_.file("a"));
        tools_.watchFile(scratch_.file("b"));
    }

    static void add(BatchDatabaseHelper& helper, const std::string& table, const RecordList& records)
    {
        helper.addChanges(table, records.begin(), records.end());
    }

    /// What each run was fed.
    std::vector<std::string> inputs() const
    {
        std::vector<std::string> result;
        for (const support::ToolCall& call : tools_.calls())
            result.push_back(call.input);
        return result;
    }

    /// The source file that each run of `table` saw.
    std::string sourceSeenBy(size_t run, const std::string& name) const
    {
        const auto file = tools_.calls().at(run).files.at(scratch_.file(name));
        return file.has_value() ? file->content : "(absent)";
    }

    support::ScratchDir scratch_;
    support::ToolStandIns tools_;
    const std::string a_ = support::tableType + scratch_.file("a");
    const std::string b_ = support::tableType + scratch_.file("b");
};

// --- at once

TEST_F(BatchDatabaseHelperTest, ImmediateIncrementalChangeIsOneMergeOfAllRecords)
{
    BatchDatabaseHelper helper(true, true);
    add(helper, a_, {{"k1", "v1"}, {"k2", "v2"}, {"k3", "v3"}});
    EXPECT_EQ((CommandLines{{postmapPath, "-r", "-i", a_}}), tools_.commandLines());
    EXPECT_EQ((std::vector<std::string>{"k1 v1\nk2 v2\nk3 v3\n"}), inputs());
}

TEST_F(BatchDatabaseHelperTest, ImmediateReplacingChangeIsOneRebuild)
{
    BatchDatabaseHelper helper(false, true);
    add(helper, a_, {{"k1", "v1"}, {"k2", "v2"}});
    EXPECT_EQ((CommandLines{{postmapPath, "-r", a_}}), tools_.commandLines());
    EXPECT_EQ("k1 v1\nk2 v2\n", sourceSeenBy(0, "a"));
}

TEST_F(BatchDatabaseHelperTest, ImmediateIncrementalChangeOfNothingRunsNothing)
{
    BatchDatabaseHelper helper(true, true);
    add(helper, a_, {});
    EXPECT_TRUE(tools_.calls().empty());
}

TEST_F(BatchDatabaseHelperTest, ImmediateReplacingChangeOfNothingEmptiesTheTable)
{
    BatchDatabaseHelper helper(false, true);
    add(helper, a_, {});
    EXPECT_EQ((CommandLines{{postmapPath, "-r", a_}}), tools_.commandLines());
    EXPECT_EQ("", sourceSeenBy(0, "a"));
}

TEST_F(BatchDatabaseHelperTest, ImmediateChangesLeaveNothingToCommit)
{
    {
        BatchDatabaseHelper helper(true, true);
        add(helper, a_, {{"k", "v"}});
        add(helper, a_, {{"k", "w"}});
        tools_.forget();
        helper.commit();
    }
    EXPECT_TRUE(tools_.calls().empty());
}

TEST_F(BatchDatabaseHelperTest, FailureOfAnImmediateChangeIsPassedOn)
{
    tools_.answer(postmapPath, ToolAnswer::fails(1, "postmap: fatal: x\n"));
    for (const bool incremental : {true, false}) {
        BatchDatabaseHelper helper(incremental, true);
        const auto change = [&] { add(helper, a_, {{"k", "v"}}); };
        EXPECT_EQ("postmap: fatal: x\n", exactMessageOf<PostfixConfigurationError>(change)) << incremental;
    }
}

// --- gathered

TEST_F(BatchDatabaseHelperTest, GatheredChangesRunNothingAndWriteNothing)
{
    BatchDatabaseHelper merging(true, false);
    BatchDatabaseHelper replacing(false, false);
    add(merging, a_, {{"k", "v"}});
    add(replacing, b_, {{"k", "v"}});
    EXPECT_TRUE(tools_.calls().empty());
    EXPECT_TRUE(scratch_.names().empty());
    EXPECT_TRUE(support::namesIn(support::lockDirectory).empty());
}

TEST_F(BatchDatabaseHelperTest, CommitMergesTablesInTheOrderOfTheirNames)
{
    BatchDatabaseHelper helper(true, false);
    const std::string lateName = "z:" + scratch_.file("0"), earlyName = "a:" + scratch_.file("z");
    add(helper, lateName, {{"l", "1"}});
    add(helper, b_, {{"b", "1"}});
    add(helper, a_, {{"a", "1"}});
    add(helper, earlyName, {{"e", "1"}});
    helper.commit();
    EXPECT_EQ((CommandLines{{postmapPath, "-r", "-i", earlyName},
                            {postmapPath, "-r", "-i", a_},
                            {postmapPath, "-r", "-i", b_},
                            {postmapPath, "-r", "-i", lateName}}),
              tools_.commandLines());
    EXPECT_EQ((std::vector<std::string>{"e 1\n", "a 1\n", "b 1\n", "l 1\n"}), inputs());
}

TEST_F(BatchDatabaseHelperTest, ChangesOfOneTableAreOneRunInTheirOrder)
{
    BatchDatabaseHelper helper(true, false);
    add(helper, a_, {{"z", "1"}, {"y", "2"}});
    add(helper, b_, {{"b", "1"}});
    add(helper, a_, {{"x", "3"}, {"z", "4"}});
    helper.commit();
    EXPECT_EQ((CommandLines{{postmapPath, "-r", "-i", a_}, {postmapPath, "-r", "-i", b_}}),
              tools_.commandLines());
    EXPECT_EQ((std::vector<std::string>{"z 1\ny 2\nx 3\nz 4\n", "b 1\n"}), inputs());
}

TEST_F(BatchDatabaseHelperTest, CommitRebuildsEachTableFromItsRecords)
{
    BatchDatabaseHelper helper(false, false);
    add(helper, b_, {{"b", "1"}});
    add(helper, a_, {{"a", "1"}});
    add(helper, a_, {{"a", "2"}});
    helper.commit();
    EXPECT_EQ((CommandLines{{postmapPath, "-r", a_}, {postmapPath, "-r", b_}}), tools_.commandLines());
    EXPECT_EQ("a 1\na 2\n", sourceSeenBy(0, "a"));
    EXPECT_EQ("b 1\n", sourceSeenBy(1, "b"));
    EXPECT_TRUE(scratch_.names().empty());
}

// A table that only got empty ranges is committed, too: merging nothing runs nothing, replacing empties it.
TEST_F(BatchDatabaseHelperTest, TableWithoutRecordsIsCommittedToo)
{
    BatchDatabaseHelper merging(true, false);
    add(merging, a_, {});
    merging.commit();
    EXPECT_TRUE(tools_.calls().empty());
    BatchDatabaseHelper replacing(false, false);
    add(replacing, a_, {});
    replacing.commit();
    EXPECT_EQ((CommandLines{{postmapPath, "-r", a_}}), tools_.commandLines());
    EXPECT_EQ("", sourceSeenBy(0, "a"));
}

// The caller's records may no longer exist then.
TEST_F(BatchDatabaseHelperTest, RecordsAreCopied)
{
    BatchDatabaseHelper helper(true, false);
    {
        RecordList records{{"k", "v"}};
        helper.addChanges(a_, records.begin(), records.end());
        records.front().second = "changed";
    }
    helper.commit();
    EXPECT_EQ((std::vector<std::string>{"k v\n"}), inputs());
}

TEST_F(BatchDatabaseHelperTest, CommittedChangesAreForgotten)
{
    BatchDatabaseHelper helper(true, false);
    add(helper, a_, {{"k", "v"}});
    helper.commit();
    helper.commit();
    EXPECT_EQ(1U, tools_.calls().size());
    add(helper, a_, {{"l", "w"}});
    helper.commit();
    EXPECT_EQ((std::vector<std::string>{"k v\n", "l w\n"}), inputs());
}

TEST_F(BatchDatabaseHelperTest, CommitOfNothingRunsNothing)
{
    BatchDatabaseHelper(true, false).commit();
    BatchDatabaseHelper(false, false).commit();
    EXPECT_TRUE(tools_.calls().empty());
}

TEST_F(BatchDatabaseHelperTest, UncommittedChangesAreDropped)
{
    {
        BatchDatabaseHelper merging(true, false);
        add(merging, a_, {{"k", "v"}});
        BatchDatabaseHelper replacing(false, false);
        add(replacing, a_, {{"k", "v"}});
    }
    EXPECT_TRUE(tools_.calls().empty());
    EXPECT_TRUE(scratch_.names().empty());
}

// Everything collected is kept, including the table that was written.
TEST_F(BatchDatabaseHelperTest, FailedCommitStopsThereAndKeepsEverything)
{
    BatchDatabaseHelper helper(true, false);
    const std::string c = support::tableType + scratch_.file("c");
    add(helper, a_, {{"a", "1"}});
    add(helper, b_, {{"b", "1"}});
    add(helper, c, {{"c", "1"}});
    tools_.answer(postmapPath, {"-r", "-i", b_}, ToolAnswer::fails(1, "postmap: fatal: x\n"));
    EXPECT_EQ("postmap: fatal: x\n", exactMessageOf<PostfixConfigurationError>([&] { helper.commit(); }));
    EXPECT_EQ((std::vector<std::string>{"a 1\n", "b 1\n"}), inputs());
    tools_.forget();
    tools_.answer(postmapPath, {"-r", "-i", b_}, ToolAnswer());
    helper.commit();
    EXPECT_EQ((std::vector<std::string>{"a 1\n", "b 1\n", "c 1\n"}), inputs());
}

// Without memory for the table's entry.
TEST_F(BatchDatabaseHelperTest, EntryThatCannotBeMadeIsADatabaseError)
{
    BatchDatabaseHelper helper(true, false);
    const RecordList records{{"k", "v"}};
    const std::string table = support::tableType + std::string(1000000, 'x');
    refusedSize = 1000000;
    const std::string message = exactMessageOf<PostfixDatabaseError>(
        [&] { helper.addChanges(table, records.begin(), records.end()); });
    refusedSize = 0;
    EXPECT_EQ("unable to form record cache", message);
    helper.commit();
    EXPECT_TRUE(tools_.calls().empty());
}

} // namespace
