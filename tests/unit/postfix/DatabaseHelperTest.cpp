// DatabaseHelper: the run of postmap(1) for each change, its input, its files and its lock, and what counts
// as its failure.
#include "postfix/DatabaseHelper.h"

#include "common/SystemError.h"
#include "postfix/PostfixError.h"
#include "unit/postfix/PostfixTestTools.h"
#include "unit/postfix/ToolStandIns.h"

#include "support/Capture.h"
#include "support/Child.h"
#include "support/FixedPaths.h"
#include "support/HeldLock.h"
#include "support/LockFiles.h"
#include "support/Mounts.h"
#include "support/OpenFds.h"
#include "support/RealPostfix.h"
#include "support/ScratchDir.h"
#include "support/TableFiles.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <list>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace {

// So many of the next calls of remove(3) fail with EINTR.
int removalsToInterrupt = 0;

} // namespace

extern "C" int remove(const char* path) noexcept
{
    if (removalsToInterrupt > 0) {
        --removalsToInterrupt;
        errno = EINTR;
        return -1;
    }
    const int result = ::unlink(path);
    return result == -1 && errno == EISDIR ? ::rmdir(path) : result;
}

namespace {

using support::exactMessageOf;
using support::messageOf;
using support::postmapPath;
using support::SeenFile;
using support::ToolAnswer;
using support::ToolCall;
using namespace zorvo::mail::postfix;

using CommandLines = std::vector<std::vector<std::string>>;
using Keys = std::vector<std::string>;

const RecordList noRecords;
const RecordList twoRecords{{"@example.org", "zorvo-192.0.2.1-:"}, {"@example.com", "zorvo--2001-db8--1:"}};
const char* const twoRecordsText = "@example.org zorvo-192.0.2.1-:\n@example.com zorvo--2001-db8--1:\n";

/// With postmap replaced.
class DatabaseHelperTest : public testing::Test {
protected:
    DatabaseHelperTest()
    {
        tools_.replace(postmapPath);
        tools_.watchFile(source_);
        tools_.probeLock(lock_);
    }

    static void add(const std::string& table, const RecordList& records)
    {
        DatabaseHelper::addRecords(table, records.begin(), records.end());
    }
    static void replace(const std::string& table, const RecordList& records)
    {
        DatabaseHelper::replaceRecords(table, records.begin(), records.end());
    }
    static void remove(const std::string& table, const Keys& keys)
    {
        DatabaseHelper::removeRecords(table, keys.begin(), keys.end());
    }

    /// The only run so far.
    ToolCall call() const
    {
        const std::vector<ToolCall> all = tools_.calls();
        if (all.size() != 1)
            throw std::logic_error(std::to_string(all.size()) + " runs instead of one");
        return all.front();
    }

    bool someLockWasTaken() const { return !support::namesIn(support::lockDirectory).empty(); }

    support::ScratchDir scratch_;
    support::ToolStandIns tools_;
    const std::string source_ = scratch_.file("table");
    const std::string table_ = support::tableType + source_;
    const std::string lock_ = support::lockFileOf(source_);
};

// --- adding

TEST_F(DatabaseHelperTest, AddingIsOneRunFedWithTheRecordsInOrder)
{
    add(table_, twoRecords);
    EXPECT_EQ((std::vector<std::string>{postmapPath, "-r", "-i", table_}), call().argv);
    EXPECT_EQ(twoRecordsText, call().input);
}

TEST_F(DatabaseHelperTest, OneRecordIsAddedLikeAList)
{
    DatabaseHelper::addRecord(table_, "key", "value");
    EXPECT_EQ((std::vector<std::string>{postmapPath, "-r", "-i", table_}), call().argv);
    EXPECT_EQ("key value\n", call().input);
}

TEST_F(DatabaseHelperTest, RecordsOfAVectorAreAdded)
{
    const std::vector<Record> records(twoRecords.begin(), twoRecords.end());
    DatabaseHelper::addRecords(table_, records.begin(), records.end());
    EXPECT_EQ(twoRecordsText, call().input);
}

// No quoting, no sorting, no dropping.
TEST_F(DatabaseHelperTest, RecordsArePassedAsTheyAre)
{
    add(table_, {{"b", "2"},
                 {"a", "1"},
                 {"b", "3"},
                 {"", ""},
                 {"#k", "  v "},
                 {"two words", "\"x\" 'y' $z\t"},
                 {std::string("n\0l", 3), "\xff"}});
    EXPECT_EQ("b 2\na 1\nb 3\n \n#k   v \ntwo words \"x\" 'y' $z\t\n" + std::string("n\0l \xff\n", 6),
              call().input);
}

// More than any pipe holds at once.
TEST_F(DatabaseHelperTest, ManyRecordsReachTheToolWhole)
{
    RecordList records;
    std::string expected;
    for (int i = 0; i < 50000; ++i) {
        records.emplace_back("key" + std::to_string(i), "value" + std::to_string(i));
        expected += "key" + std::to_string(i) + " value" + std::to_string(i) + "\n";
    }
    add(table_, records);
    EXPECT_EQ(expected, call().input);
}

TEST_F(DatabaseHelperTest, OneLargeRecordReachesTheToolWhole)
{
    const std::string value(3000000, 'v');
    add(table_, {{"key", value}, {"next", "x"}});
    EXPECT_EQ("key " + value + "\nnext x\n", call().input);
}

TEST_F(DatabaseHelperTest, AddingNothingRunsNothingAndTakesNoLock)
{
    const support::HeldLock lock(lock_);
    ::alarm(20);
    add(table_, noRecords);
    ::alarm(0);
    EXPECT_TRUE(tools_.calls().empty());
}

TEST_F(DatabaseHelperTest, AddingNothingMakesNoLockFile)
{
    add(table_, noRecords);
    EXPECT_FALSE(someLockWasTaken());
}

TEST_F(DatabaseHelperTest, AddingNeedsNoSourceFile)
{
    add(table_, twoRecords);
    EXPECT_EQ(std::nullopt, call().files.at(source_));
    EXPECT_TRUE(scratch_.names().empty());
}

TEST_F(DatabaseHelperTest, AddingRunsUnderTheLockOfTheSourceFile)
{
    add(table_, twoRecords);
    EXPECT_TRUE(call().lockHeld.at(lock_));
    EXPECT_TRUE(support::lockIsFree(lock_));
}

TEST_F(DatabaseHelperTest, AddingWaitsForTheLock)
{
    support::HeldLock lock(lock_);
    const pid_t child = support::forkChild([this] {
        add(table_, twoRecords);
        return 0;
    });
    ASSERT_TRUE(lock.isAwaitedBy(child));
    EXPECT_TRUE(tools_.calls().empty());
    lock.release();
    EXPECT_EQ(0, support::waitFor(child));
    EXPECT_EQ(twoRecordsText, call().input);
}

TEST_F(DatabaseHelperTest, FailedAdditionCarriesErrorOutputAsItIs)
{
    tools_.answer(postmapPath, ToolAnswer::fails(1, " postmap: warning: x\npostmap: fatal: y\n\n"));
    EXPECT_EQ(" postmap: warning: x\npostmap: fatal: y\n\n",
              exactMessageOf<PostfixConfigurationError>([this] { add(table_, twoRecords); }));
    EXPECT_TRUE(support::lockIsFree(lock_));
}

TEST_F(DatabaseHelperTest, FailedAdditionWithoutErrorOutputIsUnknown)
{
    tools_.answer(postmapPath, ToolAnswer::fails(1, ""));
    EXPECT_EQ("unknown error", exactMessageOf<PostfixConfigurationError>(
                                   [this] { DatabaseHelper::addRecord(table_, "k", "v"); }));
    tools_.answer(postmapPath, ToolAnswer::dies(SIGKILL, ""));
    EXPECT_EQ("unknown error",
              exactMessageOf<PostfixConfigurationError>([this] { add(table_, twoRecords); }));
}

// Only the exit status counts, unlike for a removal.
TEST_F(DatabaseHelperTest, AdditionWithToleratedErrorOutputStillFails)
{
    tools_.answer(postmapPath, ToolAnswer::fails(1, "postmap: warning: x\n"));
    EXPECT_EQ("postmap: warning: x\n",
              exactMessageOf<PostfixConfigurationError>([this] { add(table_, twoRecords); }));
}

TEST_F(DatabaseHelperTest, AdditionWithErrorOutputAndExitZeroSucceeds)
{
    tools_.answer(postmapPath, ToolAnswer::fails(0, "postmap: fatal: x\n"));
    support::Capture capture;
    const std::string message = messageOf<std::exception>([this] { add(table_, twoRecords); });
    EXPECT_EQ("", capture.err());
    EXPECT_EQ("(no exception)", message);
}

// A tool that ends without reading costs a report, not the process.
TEST_F(DatabaseHelperTest, ToolThatSucceedsWithoutReadingFailsTheWrite)
{
    RecordList records;
    for (int i = 0; i < 50000; ++i)
        records.emplace_back("key" + std::to_string(i), "value");
    ToolAnswer answer;
    answer.readsInput = false;
    tools_.answer(postmapPath, answer);
    EXPECT_EQ("write: Broken pipe", exactMessageOf<zorvo::SystemError>([&] { add(table_, records); }));
    EXPECT_TRUE(support::lockIsFree(lock_));
    EXPECT_TRUE(support::hasNoChildren());
}

TEST_F(DatabaseHelperTest, ToolThatFailsWithoutReadingIsReportedWithItsErrorOutput)
{
    RecordList many;
    for (int i = 0; i < 50000; ++i)
        many.emplace_back("key" + std::to_string(i), "value");
    ToolAnswer answer = ToolAnswer::fails(1, "postmap: fatal: no\n");
    answer.readsInput = false;
    tools_.answer(postmapPath, answer);
    for (const RecordList& records : {many, RecordList(twoRecords)})
        EXPECT_EQ("postmap: fatal: no\n",
                  exactMessageOf<PostfixConfigurationError>([&] { add(table_, records); }));
    answer = ToolAnswer::dies(SIGKILL, "");
    answer.readsInput = false;
    tools_.answer(postmapPath, answer);
    EXPECT_EQ("unknown error", exactMessageOf<PostfixConfigurationError>([&] { add(table_, many); }));
}

TEST_F(DatabaseHelperTest, RemovalThatFailsWithoutReadingIsReportedWithItsErrorOutput)
{
    std::list<std::string> keys;
    for (int i = 0; i < 50000; ++i)
        keys.push_back("key" + std::to_string(i));
    ToolAnswer answer = ToolAnswer::fails(1, "postmap: fatal: no\n");
    answer.readsInput = false;
    tools_.answer(postmapPath, answer);
    EXPECT_EQ("postmap: fatal: no\n", exactMessageOf<PostfixDatabaseError>([&] {
                  DatabaseHelper::removeRecords(table_, keys.begin(), keys.end());
              }));
}

// --- removing one

TEST_F(DatabaseHelperTest, RemovingOneIsOneRunWithTheKey)
{
    DatabaseHelper::removeRecord(table_, "@example.org");
    EXPECT_EQ((std::vector<std::string>{postmapPath, "-d", "@example.org", table_}), call().argv);
    EXPECT_EQ("", call().input);
}

TEST_F(DatabaseHelperTest, KeyIsPassedAsItIs)
{
    DatabaseHelper::removeRecord(table_, " a 'b' $c;\n*");
    EXPECT_EQ((std::vector<std::string>{postmapPath, "-d", " a 'b' $c;\n*", table_}), call().argv);
}

TEST_F(DatabaseHelperTest, RemovingOneRunsUnderTheLock)
{
    DatabaseHelper::removeRecord(table_, "key");
    EXPECT_TRUE(call().lockHeld.at(lock_));
    EXPECT_TRUE(support::lockIsFree(lock_));
    EXPECT_TRUE(scratch_.names().empty());
}

TEST_F(DatabaseHelperTest, RemovingOneWaitsForTheLock)
{
    support::HeldLock lock(lock_);
    const pid_t child = support::forkChild([this] {
        DatabaseHelper::removeRecord(table_, "key");
        return 0;
    });
    ASSERT_TRUE(lock.isAwaitedBy(child));
    EXPECT_TRUE(tools_.calls().empty());
    lock.release();
    EXPECT_EQ(0, support::waitFor(child));
    EXPECT_EQ(1U, tools_.calls().size());
}

TEST_F(DatabaseHelperTest, RemovalWithToleratedErrorOutputSucceeds)
{
    for (const std::string text : {"", "postmap: warning: x\n", "postmap: note: x\n", "no diagnostic\n"}) {
        tools_.answer(postmapPath, ToolAnswer::fails(1, text));
        EXPECT_EQ("(no exception)",
                  messageOf<std::exception>([this] { DatabaseHelper::removeRecord(table_, "key"); }))
            << text;
    }
}

TEST_F(DatabaseHelperTest, RemovalWithReportedErrorFails)
{
    for (const std::string text : {"postmap: fatal: open database /x.db: No such file or directory\n",
                                   " \npostmap: error: x", "postmap: warning: x\npostmap: panic: y\n\n"}) {
        tools_.answer(postmapPath, ToolAnswer::fails(1, text));
        EXPECT_EQ(text, exactMessageOf<PostfixDatabaseError>(
                            [this] { DatabaseHelper::removeRecord(table_, "key"); }));
    }
    EXPECT_TRUE(support::lockIsFree(lock_));
}

TEST_F(DatabaseHelperTest, RemovalWithExitZeroSucceedsWhateverWasReported)
{
    tools_.answer(postmapPath, ToolAnswer::fails(0, "postmap: fatal: x\n"));
    EXPECT_EQ("(no exception)",
              messageOf<std::exception>([this] { DatabaseHelper::removeRecord(table_, "key"); }));
}

// A killed tool is a failure even without output: there is no substitute text here.
TEST_F(DatabaseHelperTest, KilledRemovalFailsWithItsErrorOutput)
{
    tools_.answer(postmapPath, ToolAnswer::dies(SIGKILL, ""));
    EXPECT_EQ("",
              exactMessageOf<PostfixDatabaseError>([this] { DatabaseHelper::removeRecord(table_, "key"); }));
    tools_.answer(postmapPath, ToolAnswer::dies(SIGTERM, "postmap: warning: x\n"));
    EXPECT_EQ("postmap: warning: x\n",
              exactMessageOf<PostfixDatabaseError>([this] { DatabaseHelper::removeRecord(table_, "key"); }));
}

// --- removing many

TEST_F(DatabaseHelperTest, RemovingManyIsOneRunFedWithTheKeysInOrder)
{
    remove(table_, {"b", "a", "b", "", " c d "});
    EXPECT_EQ((std::vector<std::string>{postmapPath, "-d", "-", table_}), call().argv);
    EXPECT_EQ("b\na\nb\n\n c d \n", call().input);
}

TEST_F(DatabaseHelperTest, KeysOfAListAreRemoved)
{
    const std::list<std::string> keys{"a", "b"};
    DatabaseHelper::removeRecords(table_, keys.begin(), keys.end());
    EXPECT_EQ("a\nb\n", call().input);
}

TEST_F(DatabaseHelperTest, RemovingNoneRunsNothingAndTakesNoLock)
{
    remove(table_, {});
    EXPECT_TRUE(tools_.calls().empty());
    EXPECT_FALSE(someLockWasTaken());
}

TEST_F(DatabaseHelperTest, RemovingManyRunsUnderTheLock)
{
    remove(table_, {"a", "b"});
    EXPECT_TRUE(call().lockHeld.at(lock_));
    EXPECT_TRUE(support::lockIsFree(lock_));
}

TEST_F(DatabaseHelperTest, RemovalOfManyFailsAsRemovalOfOneDoes)
{
    tools_.answer(postmapPath, ToolAnswer::fails(1, "postmap: warning: x\n"));
    EXPECT_EQ("(no exception)", messageOf<std::exception>([this] { remove(table_, {"a"}); }));
    tools_.answer(postmapPath, ToolAnswer::fails(1, ""));
    EXPECT_EQ("(no exception)", messageOf<std::exception>([this] { remove(table_, {"a"}); }));
    tools_.answer(postmapPath, ToolAnswer::fails(1, "postmap: fatal: x\n"));
    EXPECT_EQ("postmap: fatal: x\n", exactMessageOf<PostfixDatabaseError>([this] { remove(table_, {"a"}); }));
    tools_.answer(postmapPath, ToolAnswer::fails(0, "postmap: fatal: x\n"));
    EXPECT_EQ("(no exception)", messageOf<std::exception>([this] { remove(table_, {"a"}); }));
    tools_.answer(postmapPath, ToolAnswer::dies(SIGKILL, ""));
    EXPECT_EQ("", exactMessageOf<PostfixDatabaseError>([this] { remove(table_, {"a"}); }));
}

// --- rebuilding

TEST_F(DatabaseHelperTest, RebuildingRunsOverASourceFileWithTheRecords)
{
    replace(table_, twoRecords);
    EXPECT_EQ((std::vector<std::string>{postmapPath, "-r", table_}), call().argv);
    ASSERT_TRUE(call().files.at(source_).has_value());
    EXPECT_EQ(twoRecordsText, call().files.at(source_)->content);
}

TEST_F(DatabaseHelperTest, RebuildingWritesRecordsAsTheyAre)
{
    replace(table_, {{"b", "2"}, {"a", "1"}, {"b", "3"}, {"", ""}, {"#k", "  v "}, {"two words", "x"}});
    EXPECT_EQ("b 2\na 1\nb 3\n \n#k   v \ntwo words x\n", call().files.at(source_)->content);
}

TEST_F(DatabaseHelperTest, RebuildingFromNothingRunsOverAnEmptySourceFile)
{
    replace(table_, noRecords);
    EXPECT_EQ((std::vector<std::string>{postmapPath, "-r", table_}), call().argv);
    ASSERT_TRUE(call().files.at(source_).has_value());
    EXPECT_EQ("", call().files.at(source_)->content);
    EXPECT_TRUE(scratch_.names().empty());
}

TEST_F(DatabaseHelperTest, OldSourceFileIsTruncated)
{
    support::writeFile(source_, std::string(1000, 'x'));
    replace(table_, {{"k", "v"}});
    EXPECT_EQ("k v\n", call().files.at(source_)->content);
}

TEST_F(DatabaseHelperTest, RebuildingLargeTablesWritesEverything)
{
    RecordList records;
    std::string expected;
    for (int i = 0; i < 20000; ++i) {
        records.emplace_back("key" + std::to_string(i), "value");
        expected += "key" + std::to_string(i) + " value\n";
    }
    replace(table_, records);
    EXPECT_EQ(expected, call().files.at(source_)->content);
}

TEST_F(DatabaseHelperTest, SourceFileIsGoneAfterASuccess)
{
    replace(table_, twoRecords);
    EXPECT_TRUE(scratch_.names().empty());
}

TEST_F(DatabaseHelperTest, SourceFileIsGoneAfterAFailure)
{
    tools_.answer(postmapPath, ToolAnswer::fails(1, "postmap: fatal: x\n"));
    EXPECT_EQ("postmap: fatal: x\n",
              exactMessageOf<PostfixConfigurationError>([this] { replace(table_, twoRecords); }));
    EXPECT_TRUE(scratch_.names().empty());
    EXPECT_TRUE(support::lockIsFree(lock_));
}

TEST_F(DatabaseHelperTest, SourceFileIsGoneAfterAKill)
{
    tools_.answer(postmapPath, ToolAnswer::dies(SIGKILL, ""));
    EXPECT_EQ("unknown error",
              exactMessageOf<PostfixConfigurationError>([this] { replace(table_, twoRecords); }));
    EXPECT_TRUE(scratch_.names().empty());
}

TEST_F(DatabaseHelperTest, FailedRebuildWithoutErrorOutputIsUnknown)
{
    tools_.answer(postmapPath, ToolAnswer::fails(1, ""));
    EXPECT_EQ("unknown error",
              exactMessageOf<PostfixConfigurationError>([this] { replace(table_, noRecords); }));
}

TEST_F(DatabaseHelperTest, RebuildWithToleratedErrorOutputStillFails)
{
    tools_.answer(postmapPath, ToolAnswer::fails(1, "postmap: warning: x\n"));
    EXPECT_EQ("postmap: warning: x\n",
              exactMessageOf<PostfixConfigurationError>([this] { replace(table_, noRecords); }));
}

TEST_F(DatabaseHelperTest, RebuildingRunsUnderTheLock)
{
    replace(table_, twoRecords);
    EXPECT_TRUE(call().lockHeld.at(lock_));
    EXPECT_TRUE(support::lockIsFree(lock_));
}

// Not even the source file is written before the lock is held.
TEST_F(DatabaseHelperTest, RebuildingWaitsForTheLock)
{
    support::HeldLock lock(lock_);
    const pid_t child = support::forkChild([this] {
        replace(table_, twoRecords);
        return 0;
    });
    ASSERT_TRUE(lock.isAwaitedBy(child));
    EXPECT_TRUE(tools_.calls().empty());
    EXPECT_TRUE(scratch_.names().empty());
    lock.release();
    EXPECT_EQ(0, support::waitFor(child));
    EXPECT_EQ(twoRecordsText, call().files.at(source_)->content);
}

TEST_F(DatabaseHelperTest, SourceFileThatCannotBeMadeIsTheStreamsFailure)
{
    EXPECT_THROW(replace(support::tableType + scratch_.file("missing/table"), twoRecords),
                 std::ios_base::failure);
    EXPECT_THROW(replace(support::tableType + scratch_.file("missing/table"), noRecords),
                 std::ios_base::failure);
    EXPECT_TRUE(tools_.calls().empty());
    EXPECT_TRUE(support::lockIsFree(support::lockFileOf(scratch_.file("missing/table"))));
}

TEST_F(DatabaseHelperTest, FullFileSystemIsTheStreamsFailure)
{
    if (!support::canMount())
        GTEST_SKIP() << "no mounts here";
    const support::ScopedMount small("none", scratch_.path(), "tmpfs", 0, "size=64k");
    EXPECT_THROW(replace(table_, {{"key", std::string(200000, 'v')}}), std::ios_base::failure);
    EXPECT_TRUE(tools_.calls().empty());
    EXPECT_TRUE(scratch_.names().empty());
}

// The few bytes reach the file only at the end: their loss is noticed as well.
TEST_F(DatabaseHelperTest, FailedLastWriteIsTheStreamsFailure)
{
    if (!support::canMount())
        GTEST_SKIP() << "no mounts here";
    const support::ScopedMount small("none", scratch_.path(), "tmpfs", 0, "size=4k,nr_inodes=4");
    support::writeFile(scratch_.file("filler"), std::string(4096, 'x'));
    EXPECT_THROW(replace(table_, twoRecords), std::ios_base::failure);
    EXPECT_TRUE(tools_.calls().empty());
    EXPECT_EQ(std::set<std::string>{"filler"}, scratch_.names());
}

TEST_F(DatabaseHelperTest, FailedCloseIsTheStreamsFailure)
{
    const auto result = support::runInChild([this] {
        support::failCloseOf(support::nextDescriptor(1), EIO); // The first one is the lock's.
        try {
            replace(table_, twoRecords);
        } catch (const std::ios_base::failure&) {
            return 7;
        }
        return 0;
    });
    EXPECT_TRUE(result.exitedWith(7));
    EXPECT_TRUE(tools_.calls().empty());
    EXPECT_TRUE(scratch_.names().empty());
}

TEST_F(DatabaseHelperTest, RunsLeaveNoDescriptorAndNoChild)
{
    const auto before = support::openFds();
    add(table_, twoRecords);
    replace(table_, twoRecords);
    DatabaseHelper::removeRecord(table_, "k");
    remove(table_, {"k"});
    tools_.answer(postmapPath, ToolAnswer::fails(1, "postmap: fatal: x\n"));
    EXPECT_THROW(add(table_, twoRecords), PostfixConfigurationError);
    EXPECT_THROW(replace(table_, twoRecords), PostfixConfigurationError);
    EXPECT_THROW(DatabaseHelper::removeRecord(table_, "k"), PostfixDatabaseError);
    EXPECT_EQ(before, support::openFds());
    EXPECT_TRUE(support::hasNoChildren());
}

// --- table names

TEST_F(DatabaseHelperTest, OnlyTheFirstColonEndsTheType)
{
    const std::string source = scratch_.file("a:b:c");
    tools_.watchFile(source);
    tools_.probeLock(support::lockFileOf(source));
    replace("btree:" + source, twoRecords);
    EXPECT_EQ((std::vector<std::string>{postmapPath, "-r", "btree:" + source}), call().argv);
    EXPECT_EQ(twoRecordsText, call().files.at(source)->content);
    EXPECT_TRUE(call().lockHeld.at(support::lockFileOf(source)));
}

TEST_F(DatabaseHelperTest, NameWithoutColonIsThePathItself)
{
    replace(source_, twoRecords);
    add(source_, twoRecords);
    remove(source_, {"k"});
    EXPECT_EQ((CommandLines{{postmapPath, "-r", source_},
                            {postmapPath, "-r", "-i", source_},
                            {postmapPath, "-d", "-", source_}}),
              tools_.commandLines());
    for (const ToolCall& run : tools_.calls())
        EXPECT_TRUE(run.lockHeld.at(lock_));
    EXPECT_EQ(twoRecordsText, tools_.calls().front().files.at(source_)->content);
}

// The type is not part of the lock's name.
TEST_F(DatabaseHelperTest, OneLockServesAllTypesOfATable)
{
    for (const std::string type : {"hash:", "btree:", "lmdb:", "cdb:", ":"})
        add(type + source_, twoRecords);
    ASSERT_EQ(5U, tools_.calls().size());
    for (const ToolCall& run : tools_.calls())
        EXPECT_TRUE(run.lockHeld.at(lock_));
    EXPECT_EQ(1U, support::namesIn(support::lockDirectory).size());
}

TEST_F(DatabaseHelperTest, LmdbFileIsRemovedBeforeARebuild)
{
    const std::string database = source_ + ".lmdb";
    support::writeFile(database, "old");
    tools_.watchFile(database);
    replace("lmdb:" + source_, twoRecords);
    EXPECT_EQ(std::nullopt, call().files.at(database));
    EXPECT_EQ(twoRecordsText, call().files.at(source_)->content);
    EXPECT_TRUE(scratch_.names().empty());
}

TEST_F(DatabaseHelperTest, MissingLmdbFileIsNotAnError)
{
    replace("lmdb:" + source_, twoRecords);
    EXPECT_EQ((std::vector<std::string>{postmapPath, "-r", "lmdb:" + source_}), call().argv);
}

TEST_F(DatabaseHelperTest, InterruptedRemovalOfTheLmdbFileIsRepeated)
{
    const std::string database = source_ + ".lmdb";
    support::writeFile(database, "old");
    tools_.watchFile(database);
    removalsToInterrupt = 2;
    replace("lmdb:" + source_, twoRecords);
    EXPECT_EQ(0, removalsToInterrupt);
    EXPECT_EQ(std::nullopt, call().files.at(database));
}

TEST_F(DatabaseHelperTest, LmdbFileThatCannotBeRemovedStopsTheRebuild)
{
    const std::string database = source_ + ".lmdb";
    std::filesystem::create_directory(database);
    support::writeFile(database + "/content", "x");
    EXPECT_EQ("filesystem error: cannot remove: Directory not empty [" + database + "]",
              exactMessageOf<std::filesystem::filesystem_error>(
                  [this] { replace("lmdb:" + source_, twoRecords); }));
    EXPECT_TRUE(tools_.calls().empty());
    EXPECT_EQ(std::set<std::string>{"table.lmdb"}, scratch_.names());
}

// The records are not safe in the source file then, so the old table stays.
TEST_F(DatabaseHelperTest, FailedCloseKeepsTheLmdbFile)
{
    support::writeFile(source_ + ".lmdb", "old");
    const auto result = support::runInChild([this] {
        support::failCloseOf(support::nextDescriptor(1), EIO); // The first one is the lock's.
        try {
            replace("lmdb:" + source_, twoRecords);
        } catch (const std::ios_base::failure&) {
            return 7;
        }
        return 0;
    });
    EXPECT_TRUE(result.exitedWith(7));
    EXPECT_TRUE(tools_.calls().empty());
    EXPECT_EQ(std::set<std::string>{"table.lmdb"}, scratch_.names());
}

TEST_F(DatabaseHelperTest, LmdbFileIsGoneAfterAFailedRebuild)
{
    const std::string database = source_ + ".lmdb";
    support::writeFile(database, "old");
    tools_.answer(postmapPath, ToolAnswer::fails(1, "x"));
    EXPECT_THROW(replace("lmdb:" + source_, twoRecords), PostfixConfigurationError);
    EXPECT_TRUE(scratch_.names().empty());
}

TEST_F(DatabaseHelperTest, OtherTypesKeepTheirDatabaseFiles)
{
    const std::set<std::string> databases{"table.lmdb", "table.db"};
    for (const std::string& name : databases)
        support::writeFile(scratch_.file(name), "old");
    for (const std::string type : {"hash:", "btree:", "LMDB:", "xlmdb:", " lmdb:", "lmdb :", ":"}) {
        replace(type + source_, twoRecords);
        EXPECT_EQ(databases, scratch_.names()) << type;
    }
}

// A name that only contains "lmdb:" is not of that type: its source file has a longer name.
TEST_F(DatabaseHelperTest, LmdbLaterInTheNameIsNotTheType)
{
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(scratch_.path());
    support::writeFile("table.lmdb", "old");
    support::writeFile("lmdb:table.lmdb", "old");
    replace("hash:lmdb:table", twoRecords);
    std::filesystem::current_path(before);
    EXPECT_EQ((std::set<std::string>{"table.lmdb", "lmdb:table.lmdb"}), scratch_.names());
}

TEST_F(DatabaseHelperTest, AddingAndRemovingKeepTheLmdbFile)
{
    support::writeFile(source_ + ".lmdb", "old");
    add("lmdb:" + source_, twoRecords);
    DatabaseHelper::removeRecord("lmdb:" + source_, "k");
    remove("lmdb:" + source_, {"k"});
    EXPECT_EQ(std::set<std::string>{"table.lmdb"}, scratch_.names());
}

// --- the producers

TEST(FormRecordTest, RecordIsAppendedAndThePositionAdvanced)
{
    const std::vector<Record> records{{"a", "1"}, {"b", "2"}};
    auto it = records.begin();
    std::vector<char> buffer{'x'};
    EXPECT_TRUE(formRecord(buffer, it, records.end()));
    EXPECT_EQ("xa 1\n", std::string(buffer.begin(), buffer.end()));
    EXPECT_EQ(records.begin() + 1, it);
    EXPECT_FALSE(formRecord(buffer, it, records.end()));
    EXPECT_EQ("xa 1\nb 2\n", std::string(buffer.begin(), buffer.end()));
    EXPECT_EQ(records.end(), it);
}

TEST(PrintKeyTest, KeyIsAppendedAndThePositionAdvanced)
{
    const Keys keys{"a", "b"};
    auto it = keys.begin();
    std::vector<char> buffer{'x'};
    EXPECT_TRUE(printKey(buffer, it, keys.end()));
    EXPECT_EQ("xa\n", std::string(buffer.begin(), buffer.end()));
    EXPECT_FALSE(printKey(buffer, it, keys.end()));
    EXPECT_EQ("xa\nb\n", std::string(buffer.begin(), buffer.end()));
    EXPECT_EQ(keys.end(), it);
}

// --- a tool that cannot be started, a lock that cannot be taken

TEST(DatabaseHelperLaunchTest, ToolThatCannotBeStartedIsNamedAndNothingIsLeft)
{
    support::ScratchDir scratch;
    support::ToolStandIns tools;
    tools.breakTool(postmapPath);
    const std::string table = support::tableType + scratch.file("table");
    EXPECT_EQ("execv: Permission denied: Permission denied", exactMessageOf<zorvo::SystemError>([&] {
                  DatabaseHelper::replaceRecords(table, twoRecords.begin(), twoRecords.end());
              }));
    EXPECT_TRUE(scratch.names().empty());
    EXPECT_EQ("execv: Permission denied: Permission denied",
              exactMessageOf<zorvo::SystemError>([&] { DatabaseHelper::addRecord(table, "k", "v"); }));
    EXPECT_EQ("execv: Permission denied: Permission denied",
              exactMessageOf<zorvo::SystemError>([&] { DatabaseHelper::removeRecord(table, "k"); }));
    EXPECT_TRUE(support::lockIsFree(support::lockFileOf(scratch.file("table"))));
    EXPECT_TRUE(support::hasNoChildren());
}

TEST_F(DatabaseHelperTest, WithoutALockNothingRuns)
{
    std::filesystem::remove_all(support::lockDirectory);
    support::Capture capture;
    const std::string adding = exactMessageOf<zorvo::SystemError>([this] { add(table_, twoRecords); });
    const std::string rebuilding =
        exactMessageOf<zorvo::SystemError>([this] { replace(table_, twoRecords); });
    const std::string removing =
        exactMessageOf<zorvo::SystemError>([this] { DatabaseHelper::removeRecord(table_, "k"); });
    capture.stop();
    std::filesystem::create_directory(support::lockDirectory);
    EXPECT_EQ("lock() failed: No such file or directory", adding);
    EXPECT_EQ("lock() failed: No such file or directory", rebuilding);
    EXPECT_EQ("lock() failed: No such file or directory", removing);
    EXPECT_TRUE(tools_.calls().empty());
    EXPECT_TRUE(scratch_.names().empty());
}

// --- with the real postmap

class DatabaseHelperPostfixTest : public testing::Test {
protected:
    DatabaseHelperPostfixTest() { support::ageMainCf(); }

    /// The table's records, sorted.
    std::string content() const
    {
        return support::outputOf(support::postmapPath + std::string(" -s ") + table_ + " | sort");
    }

    void replace(const RecordList& records) const
    {
        DatabaseHelper::replaceRecords(table_, records.begin(), records.end());
    }
    void add(const RecordList& records) const
    {
        DatabaseHelper::addRecords(table_, records.begin(), records.end());
    }

    const std::string source_ = support::spoolDirectory + std::string("/test_maps");
    const std::string table_ = support::tableType + source_;
};

TEST_F(DatabaseHelperPostfixTest, RebuiltTableHoldsExactlyTheRecords)
{
    replace({{"a", "1"}, {"b", "2"}});
    EXPECT_EQ("a\t1\nb\t2\n", content());
    replace({{"c", "3"}});
    EXPECT_EQ("c\t3\n", content());
    replace({});
    EXPECT_EQ("", content());
    EXPECT_EQ(std::set<std::string>{std::filesystem::path(support::databaseOf(table_)).filename()},
              support::namesIn(support::spoolDirectory));
}

TEST_F(DatabaseHelperPostfixTest, AddedRecordsAreMergedAndReplaceTheirKey)
{
    replace({{"a", "1"}, {"b", "2"}});
    add({{"b", "22"}, {"c", "3"}});
    EXPECT_EQ("a\t1\nb\t22\nc\t3\n", content());
    DatabaseHelper::addRecord(table_, "@example.org", "zorvo-192.0.2.1-:");
    EXPECT_EQ("zorvo-192.0.2.1-:\n",
              support::outputOf(support::postmapPath + std::string(" -q @example.org ") + table_));
}

TEST_F(DatabaseHelperPostfixTest, AddingMakesAMissingTable)
{
    add({{"a", "1"}});
    EXPECT_EQ("a\t1\n", content());
}

TEST_F(DatabaseHelperPostfixTest, RemovedRecordsAreGone)
{
    replace({{"a", "1"}, {"b", "2"}, {"c", "3"}, {"d", "4"}});
    DatabaseHelper::removeRecord(table_, "b");
    EXPECT_EQ("a\t1\nc\t3\nd\t4\n", content());
    const Keys keys{"d", "a"};
    DatabaseHelper::removeRecords(table_, keys.begin(), keys.end());
    EXPECT_EQ("c\t3\n", content());
}

// postmap(1) exits with 1 without any output.
TEST_F(DatabaseHelperPostfixTest, RemovingAnAbsentKeySucceeds)
{
    replace({{"a", "1"}});
    DatabaseHelper::removeRecord(table_, "b");
    const Keys keys{"b", "c"};
    DatabaseHelper::removeRecords(table_, keys.begin(), keys.end());
    EXPECT_EQ("a\t1\n", content());
}

TEST_F(DatabaseHelperPostfixTest, RemovingFromAMissingTableIsTheToolsError)
{
    EXPECT_EQ("postmap: fatal: open database " + source_ + ".db: No such file or directory\n",
              exactMessageOf<PostfixDatabaseError>([this] { DatabaseHelper::removeRecord(table_, "b"); }));
}

TEST_F(DatabaseHelperPostfixTest, UnsupportedTypeIsTheToolsError)
{
    // Version 3.7 says it in one line, 3.10 in two.
    const std::string reason =
        "unsupported dictionary type: nosuchtype. Is the postfix-nosuchtype package installed?\n";
    const auto add = [this] { DatabaseHelper::addRecord("nosuchtype:" + source_, "k", "v"); };
    EXPECT_THAT(
        exactMessageOf<PostfixConfigurationError>(add),
        testing::AnyOf("postmap: fatal: " + reason,
                       "postmap: warning: " + reason + "postmap: fatal: unsupported map type: nosuchtype\n"));
}

} // namespace
