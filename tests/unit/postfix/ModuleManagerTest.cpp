// ModuleManager: the two files in memory, the moves between them, and the replacement of a file.
#include "postfix/ModuleManager.h"

#include "common/SystemError.h"
#include "postfix/PostfixError.h"
#include "unit/postfix/OwnMasterCf.h"
#include "unit/postfix/PostfixTestTools.h"

#include "support/Capture.h"
#include "support/Child.h"
#include "support/FixedPaths.h"
#include "support/HeldLock.h"
#include "support/LockFiles.h"
#include "support/Mounts.h"
#include "support/OpenFds.h"
#include "support/RealPostfix.h"
#include "support/ScratchDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <ios>
#include <list>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace {

using boost::logic::indeterminate;
using support::disabledPath;
using support::exactMessageOf;
using support::messageOf;
using support::ToolAnswer;
using testing::MatchesRegex;
using namespace zorvo::mail::postfix;

ModuleInfo service(const std::string& name, ModuleType type, const std::string& command)
{
    ModuleInfo info;
    info.name = name;
    info.type = type;
    info.command = {command};
    return info;
}

// --- storing one file

class StoreMasterCfTest : public testing::Test {
protected:
    static void fill(MasterCfContent& content, const std::list<std::string>& lines)
    {
        for (const std::string& line : lines)
            content.addRawLine(line);
    }

    std::string stored(const std::list<std::string>& lines)
    {
        MasterCfContent content;
        fill(content, lines);
        ModuleManager::storeMasterCf(path_, content);
        return support::readFile(path_);
    }

    support::ScratchDir scratch_;
    const std::string path_ = scratch_.file("master.cf");
};

TEST_F(StoreMasterCfTest, EveryLineGetsALineFeed)
{
    EXPECT_EQ("# a\n\nb\nsmtp inet n\n  - n - - smtpd\n",
              stored({"# a", "", "b", "smtp inet n\n  - n - - smtpd"}));
}

TEST_F(StoreMasterCfTest, EmptyLinesAtTheEndAreDropped)
{
    EXPECT_EQ("# a\n\n# b\n", stored({"# a", "", "# b", "", "", ""}));
    EXPECT_EQ("\n# b\n", stored({"", "# b", ""}));
}

TEST_F(StoreMasterCfTest, BlankLineAtTheEndIsNotEmpty)
{
    EXPECT_EQ("# a\n\n \n", stored({"# a", "", " ", ""}));
    EXPECT_EQ("# a\n\r\n", stored({"# a", "\r"}));
    EXPECT_EQ("# a\n\t\n", stored({"# a", "\t", ""}));
}

TEST_F(StoreMasterCfTest, EmptyLinesAloneAreAllWritten)
{
    EXPECT_EQ("\n", stored({""}));
    EXPECT_EQ("\n\n\n", stored({"", "", ""}));
}

TEST_F(StoreMasterCfTest, ContentWithoutLinesIsAnEmptyFile)
{
    support::writeFile(path_, "old\n");
    EXPECT_EQ("", stored({}));
}

TEST_F(StoreMasterCfTest, BytesAreWrittenAsTheyAre)
{
    std::string line;
    for (int code = 0; code < 256; ++code)
        if (code != '\n')
            line += static_cast<char>(code);
    EXPECT_EQ(line + "\n", stored({line}));
}

TEST_F(StoreMasterCfTest, LongFileIsWrittenWhole)
{
    const std::string line(10000, 'x');
    std::string expected;
    std::list<std::string> lines;
    for (int i = 0; i < 300; ++i) {
        lines.push_back(line);
        expected += line + '\n';
    }
    EXPECT_EQ(expected, stored(lines));
}

TEST_F(StoreMasterCfTest, NewFileHasItsModeWhateverTheUmask)
{
    const mode_t before = ::umask(0177);
    stored({"# a"});
    ::umask(before);
    EXPECT_EQ(0644U, support::modeOf(path_));
}

TEST_F(StoreMasterCfTest, ReplacedFileHasItsModeWhateverItWas)
{
    for (const unsigned mode : {0600U, 0777U, 0444U, 04755U}) {
        support::writeFile(path_, "old\n");
        ASSERT_EQ(0, ::chmod(path_.c_str(), mode));
        stored({"# a"});
        EXPECT_EQ(0644U, support::modeOf(path_));
    }
}

// The old file is replaced, not written to: a process that has it open can read it to the end.
TEST_F(StoreMasterCfTest, OldFileStaysWholeForItsReaders)
{
    support::writeFile(path_, "old\n");
    std::filesystem::create_hard_link(path_, scratch_.file("second name"));
    stored({"new"});
    EXPECT_EQ("old\n", support::readFile(scratch_.file("second name")));
    EXPECT_EQ("new\n", support::readFile(path_));
}

TEST_F(StoreMasterCfTest, NothingElseIsLeftBehind)
{
    const auto before = support::openFds();
    stored({"# a"});
    EXPECT_EQ(before, support::openFds());
    EXPECT_EQ(std::set<std::string>{"master.cf"}, scratch_.names());
}

// The lock's name is the MD5 of the path, in the common directory; the file itself stays.
TEST_F(StoreMasterCfTest, LockFileIsNamedByThePath)
{
    stored({"# a"});
    EXPECT_EQ(std::set<std::string>{support::lockNameOf(path_)}, support::namesIn(support::lockDirectory));
    EXPECT_TRUE(support::lockIsFree(support::lockFileOf(path_)));
}

TEST_F(StoreMasterCfTest, LockFileOfMasterCfHasItsKnownName)
{
    EXPECT_EQ("/run/lock/files/b4b19c3e41d17f125e8aaa4dfa930c93", support::lockFileOf(support::masterCfPath));
}

TEST_F(StoreMasterCfTest, StoringWaitsForTheLock)
{
    support::writeFile(path_, "old\n");
    support::HeldLock lock(support::lockFileOf(path_));
    const pid_t child = support::forkChild([this] {
        stored({"new"});
        return 0;
    });
    ASSERT_TRUE(lock.isAwaitedBy(child));
    EXPECT_EQ("old\n", support::readFile(path_));
    EXPECT_EQ(std::set<std::string>{"master.cf"}, scratch_.names());
    lock.release();
    EXPECT_EQ(0, support::waitFor(child));
    EXPECT_EQ("new\n", support::readFile(path_));
}

// The lock of another file does not matter.
TEST_F(StoreMasterCfTest, StoringDoesNotWaitForAnotherLock)
{
    const support::HeldLock lock(support::lockFileOf(scratch_.file("other")));
    ::alarm(20);
    EXPECT_EQ("new\n", stored({"new"}));
    ::alarm(0);
}

TEST_F(StoreMasterCfTest, MissingLockDirectoryIsAFailedLock)
{
    support::writeFile(path_, "old\n");
    std::filesystem::remove_all(support::lockDirectory);
    support::Capture capture;
    const std::string message = exactMessageOf<zorvo::SystemError>([this] { stored({"new"}); });
    const std::string report = capture.err();
    std::filesystem::create_directory(support::lockDirectory);
    EXPECT_EQ("lock() failed: No such file or directory", message);
    EXPECT_EQ("Unable to open file \"" + support::lockFileOf(path_) +
                  "\": No such file or directory.\nSystem error 2: No such file or directory\n",
              report);
    EXPECT_EQ("old\n", support::readFile(path_));
}

TEST_F(StoreMasterCfTest, MissingDirectoryIsAFailedTemporaryFile)
{
    MasterCfContent content;
    try {
        ModuleManager::storeMasterCf(scratch_.file("missing/master.cf"), content);
        FAIL() << "expected SystemError";
    } catch (const zorvo::SystemError& e) {
        EXPECT_STREQ("mkstemp() failed: : No such file or directory", e.what());
        EXPECT_EQ(ENOENT, e.code());
    }
    EXPECT_TRUE(support::lockIsFree(support::lockFileOf(scratch_.file("missing/master.cf"))));
}

TEST_F(StoreMasterCfTest, ReadOnlyFileSystemIsAFailedTemporaryFile)
{
    if (!support::canMount())
        GTEST_SKIP() << "no mounts here";
    support::writeFile(path_, "old\n");
    const support::ScopedMount readOnly(scratch_.path(), scratch_.path(), nullptr, MS_BIND | MS_RDONLY);
    EXPECT_EQ("mkstemp() failed: : Read-only file system",
              exactMessageOf<zorvo::SystemError>([this] { stored({"new"}); }));
    EXPECT_EQ("old\n", support::readFile(path_));
    EXPECT_EQ(std::set<std::string>{"master.cf"}, scratch_.names());
}

TEST_F(StoreMasterCfTest, FullFileSystemFailsTheStreamAndKeepsTheOldFile)
{
    if (!support::canMount())
        GTEST_SKIP() << "no mounts here";
    const support::ScopedMount small("none", scratch_.path(), "tmpfs", 0, "size=64k");
    support::writeFile(path_, "old\n");
    const std::string message = messageOf<std::ios_base::failure>(
        [this] { stored(std::list<std::string>(100, std::string(1000, 'x'))); });
    EXPECT_THAT(message, testing::Not(testing::StartsWith("(")));
    EXPECT_EQ("old\n", support::readFile(path_));
    EXPECT_EQ(std::set<std::string>{"master.cf"}, scratch_.names());
    EXPECT_TRUE(support::lockIsFree(support::lockFileOf(path_)));
}

TEST_F(StoreMasterCfTest, RenameOntoADirectoryIsNamed)
{
    std::filesystem::create_directory(path_);
    MasterCfContent content;
    try {
        ModuleManager::storeMasterCf(path_, content);
        FAIL() << "expected FSError";
    } catch (const zorvo::mail::FSError& e) {
        const std::string temporary = e.path1().string();
        EXPECT_THAT(temporary, MatchesRegex(path_ + "[A-Za-z0-9]{6}"));
        EXPECT_EQ("filesystem error: rename for " + path_ + " (" + temporary + "): Is a directory [" +
                      temporary + "]",
                  e.what());
        EXPECT_EQ(std::error_code(EISDIR, std::system_category()), e.code());
    }
    EXPECT_EQ(std::set<std::string>{"master.cf"}, scratch_.names());
    EXPECT_TRUE(std::filesystem::is_directory(path_));
    EXPECT_TRUE(support::lockIsFree(support::lockFileOf(path_)));
}

/// Tries to store in a process in which the given system calls fail; prints the result.
support::ChildResult storeWithFailing(const std::vector<unsigned>& calls, unsigned error,
                                      const std::string& path)
{
    return support::runInChild([&] {
        support::failSystemCalls(calls, error);
        MasterCfContent content;
        content.addRawLine("new");
        try {
            ModuleManager::storeMasterCf(path, content);
        } catch (const zorvo::mail::FSError& e) {
            std::cout << "FSError " << e.what();
        } catch (const std::filesystem::filesystem_error& e) {
            std::cout << "filesystem_error " << e.what();
        }
        return 0;
    });
}

TEST_F(StoreMasterCfTest, FailedChmodIsNamed)
{
    support::writeFile(path_, "old\n");
    const auto result = storeWithFailing({SYS_chmod, SYS_fchmod, SYS_fchmodat}, EPERM, path_);
    EXPECT_TRUE(result.exitedWith(0));
    EXPECT_THAT(result.out,
                MatchesRegex("filesystem_error filesystem error: chmod: Operation not permitted \\[" + path_ +
                             "[A-Za-z0-9]{6}\\]"));
    EXPECT_EQ("", result.err);
    EXPECT_EQ("old\n", support::readFile(path_));
    EXPECT_EQ(std::set<std::string>{"master.cf"}, scratch_.names());
}

TEST_F(StoreMasterCfTest, FailedFsyncIsNamed)
{
    support::writeFile(path_, "old\n");
    const auto result = storeWithFailing({SYS_fsync, SYS_fdatasync}, EIO, path_);
    EXPECT_TRUE(result.exitedWith(0));
    EXPECT_THAT(result.out, MatchesRegex("filesystem_error filesystem error: fsync: Input/output error \\[" +
                                         path_ + "[A-Za-z0-9]{6}\\]"));
    EXPECT_EQ("old\n", support::readFile(path_));
    EXPECT_EQ(std::set<std::string>{"master.cf"}, scratch_.names());
}

TEST_F(StoreMasterCfTest, FailedRenameIsNamedWithItsReason)
{
    support::writeFile(path_, "old\n");
    const auto result = storeWithFailing({SYS_rename, SYS_renameat, SYS_renameat2}, EXDEV, path_);
    EXPECT_TRUE(result.exitedWith(0));
    EXPECT_THAT(result.out, MatchesRegex("FSError filesystem error: rename for " + path_ + " \\(" + path_ +
                                         "[A-Za-z0-9]{6}\\): Invalid cross-device link \\[" + path_ +
                                         "[A-Za-z0-9]{6}\\]"));
    EXPECT_EQ("", result.err);
    EXPECT_EQ("old\n", support::readFile(path_));
    EXPECT_EQ(std::set<std::string>{"master.cf"}, scratch_.names());
}

// Data lost at the close is a failed replacement.
TEST_F(StoreMasterCfTest, FailedCloseKeepsTheOldFile)
{
    support::writeFile(path_, "old\n");
    const auto result = support::runInChild([this] {
        support::failCloseOf(support::nextDescriptor(1), EIO); // The first one is the lock's.
        MasterCfContent content;
        content.addRawLine("new");
        try {
            ModuleManager::storeMasterCf(path_, content);
        } catch (const zorvo::mail::FSError& e) {
            std::cout << e.what();
        }
        return 0;
    });
    EXPECT_TRUE(result.exitedWith(0));
    EXPECT_THAT(result.out,
                MatchesRegex("filesystem error: rename for " + path_ + " \\(" + path_ +
                             "[A-Za-z0-9]{6}\\): Input/output error \\[" + path_ + "[A-Za-z0-9]{6}\\]"));
    EXPECT_EQ("old\n", support::readFile(path_));
    EXPECT_EQ(std::set<std::string>{"master.cf"}, scratch_.names());
}

// --- the manager

class ModuleManagerTest : public support::OwnMasterCfTest {
protected:
    static ModuleManager& manager() { return ModuleManager::getInstance(); }

    ModuleManager& loaded(const std::string& enabled)
    {
        support::writeFile(path_, enabled);
        manager().loadModules(false);
        return manager();
    }

    ModuleManager& loaded(const std::string& enabled, const std::string& disabled)
    {
        support::writeFile(disabledPath, disabled);
        return loaded(enabled);
    }

    static std::string disabledFile() { return support::readFile(disabledPath); }
    static bool hasDisabledFile() { return std::filesystem::exists(disabledPath); }

    /// Tells whether a file was replaced since.
    static ino_t inode(const std::string& path)
    {
        struct stat status = {};
        if (::stat(path.c_str(), &status) != 0)
            throw std::runtime_error("cannot stat " + path);
        return status.st_ino;
    }
};

const char* const notLoaded = "modules configuration isn't loaded yet";

PROCESS_TEST_F(ModuleManagerTest, InstanceIsMadeOnceAndAsksForTheDirectoryItself)
{
    ModuleManager& first = ModuleManager::getInstance();
    ModuleManager& second = ModuleManager::getInstance();
    EXPECT_EQ(&first, &second);
    // MainCfManager asked once for itself, and the new manager once more.
    EXPECT_EQ((std::vector<std::vector<std::string>>{support::askDirectory, support::askDirectory}),
              tools_.commandLines());
}

// The manager's own question has no fallback, unlike the one of MainCfManager before it.
PROCESS_TEST_F(ModuleManagerTest, FailedQuestionForTheDirectoryIsPassedOnAndAskedAgain)
{
    tools_.answerOnce(support::postconfPath, ToolAnswer::directory());
    tools_.answerOnce(support::postconfPath, ToolAnswer::fails(1, "postconf: fatal: text\n"));
    EXPECT_EQ("postconf: fatal: text\n",
              exactMessageOf<PostfixConfigurationError>([] { ModuleManager::getInstance(); }));
    EXPECT_EQ(2U, tools_.calls().size());
    EXPECT_EQ("# a\n", (loaded("# a\n").storeModules(true), masterCf()));
    EXPECT_EQ(3U, tools_.calls().size());
}

PROCESS_TEST_F(ModuleManagerTest, EverythingNeedsTheFilesToBeLoaded)
{
    support::writeFile(path_, "# a\n");
    ModuleManager& m = manager();
    const ModuleInfo info = service("x", ModuleType::Unix, "y");
    EXPECT_EQ(notLoaded, exactMessageOf<std::logic_error>([&] { m.storeModules(false); }));
    EXPECT_EQ(notLoaded, exactMessageOf<std::logic_error>([&] { m.storeModules(true); }));
    EXPECT_EQ(notLoaded, exactMessageOf<std::logic_error>([&] { m.hasModule("x", ModuleType::Unix, true); }));
    EXPECT_EQ(notLoaded,
              exactMessageOf<std::logic_error>([&] { m.hasModule("x", ModuleType::Unix, false); }));
    EXPECT_EQ(notLoaded,
              exactMessageOf<std::logic_error>([&] { m.hasModule("x", ModuleType::Unix, indeterminate); }));
    EXPECT_EQ(notLoaded, exactMessageOf<std::logic_error>([&] { m.getModule("x", ModuleType::Unix, true); }));
    EXPECT_EQ(notLoaded,
              exactMessageOf<std::logic_error>([&] { m.getModule("x", ModuleType::Unix, false); }));
    EXPECT_EQ(notLoaded, exactMessageOf<std::logic_error>([&] { m.addModule(info, true); }));
    EXPECT_EQ(notLoaded, exactMessageOf<std::logic_error>([&] { m.addModule(info, false); }));
    EXPECT_EQ(notLoaded, exactMessageOf<std::logic_error>([&] { m.removeModule("x", ModuleType::Unix); }));
    EXPECT_EQ(notLoaded, exactMessageOf<std::logic_error>([&] { m.enableModule("x", ModuleType::Unix); }));
    EXPECT_EQ(notLoaded, exactMessageOf<std::logic_error>([&] { m.disableModule("x", ModuleType::Unix); }));
    EXPECT_EQ(notLoaded, exactMessageOf<std::logic_error>([&] { m.enabledContent(); }));
    EXPECT_EQ("# a\n", masterCf());
    EXPECT_FALSE(hasDisabledFile());
}

// --- loading

PROCESS_TEST_F(ModuleManagerTest, FailedLoadLeavesNothingLoaded)
{
    EXPECT_EQ("unable to open " + path_,
              exactMessageOf<PostfixConfigurationError>([] { manager().loadModules(false); }));
    support::writeFile(path_, "");
    EXPECT_EQ("unable to open " + path_,
              exactMessageOf<PostfixConfigurationError>([] { manager().loadModules(false); }));
    support::writeFile(path_, "Bad\n");
    EXPECT_EQ("unable to parse " + path_ + ": syntax error at position 0 near 'Bad'",
              exactMessageOf<PostfixConfigurationError>([] { manager().loadModules(false); }));
    EXPECT_EQ(notLoaded, exactMessageOf<std::logic_error>([] { manager().enabledContent(); }));
}

PROCESS_TEST_F(ModuleManagerTest, LoadedFilesAreNotReadAgain)
{
    ModuleManager& m = loaded("a unix - - n - - x\n");
    support::writeFile(path_, "b unix - - n - - x\n");
    support::writeFile(disabledPath, "c unix - - n - - x\n");
    m.loadModules(false);
    EXPECT_TRUE(m.hasModule("a", ModuleType::Unix, true));
    EXPECT_FALSE(m.hasModule("b", ModuleType::Unix, true));
    EXPECT_FALSE(m.hasModule("c", ModuleType::Unix, indeterminate));
}

PROCESS_TEST_F(ModuleManagerTest, ForcedLoadReadsAgainAndDropsEdits)
{
    ModuleManager& m = loaded("a unix - - n - - x\n", "c unix - - n - - x\n");
    m.addModule(service("edit", ModuleType::Unix, "y"), true);
    m.addModule(service("other-edit", ModuleType::Unix, "y"), false);
    support::writeFile(path_, "b unix - - n - - x\n");
    support::writeFile(disabledPath, "d unix - - n - - x\n");
    m.loadModules(true);
    EXPECT_TRUE(m.hasModule("b", ModuleType::Unix, true));
    EXPECT_TRUE(m.hasModule("d", ModuleType::Unix, false));
    for (const char* const gone : {"a", "c", "edit", "other-edit"})
        EXPECT_FALSE(m.hasModule(gone, ModuleType::Unix, indeterminate)) << gone;
}

// Dropped edits no longer count as edits: nothing is written.
PROCESS_TEST_F(ModuleManagerTest, ForcedLoadClearsBothChangeMarks)
{
    ModuleManager& m = loaded("a unix - - n - - x\n", "c unix - - n - - x\n");
    m.addModule(service("edit", ModuleType::Unix, "y"), true);
    m.addModule(service("other-edit", ModuleType::Unix, "y"), false);
    m.loadModules(true);
    const ino_t enabledBefore = inode(path_);
    const ino_t disabledBefore = inode(disabledPath);
    m.storeModules(false);
    EXPECT_EQ(enabledBefore, inode(path_));
    EXPECT_EQ(disabledBefore, inode(disabledPath));
}

PROCESS_TEST_F(ModuleManagerTest, FailedForcedLoadKeepsEverything)
{
    ModuleManager& m = loaded("a unix - - n - - x\n", "c unix - - n - - x\n");
    m.addModule(service("edit", ModuleType::Unix, "y"), true);
    support::writeFile(path_, "Bad\n");
    support::writeFile(disabledPath, "d unix - - n - - x\n");
    EXPECT_EQ("unable to parse " + path_ + ": syntax error at position 0 near 'Bad'",
              exactMessageOf<PostfixConfigurationError>([&] { m.loadModules(true); }));
    EXPECT_TRUE(m.hasModule("edit", ModuleType::Unix, true));
    EXPECT_TRUE(m.hasModule("c", ModuleType::Unix, false));
    EXPECT_FALSE(m.hasModule("d", ModuleType::Unix, false));
    m.storeModules(false);
    EXPECT_EQ("a unix - - n - - x\n\nedit unix - - n - - y\n", masterCf());
}

PROCESS_TEST_F(ModuleManagerTest, BrokenDisabledFileIsNamed)
{
    EXPECT_EQ(std::string("unable to parse ") + disabledPath + ": syntax error at position 4 near 'Bad'",
              exactMessageOf<PostfixConfigurationError>([this] { loaded("# a\n", "# b\nBad\n"); }));
}

// master.cf counts as soon as it is read, before the other file is looked at.
PROCESS_TEST_F(ModuleManagerTest, BrokenDisabledFileLeavesMasterCfLoaded)
{
    EXPECT_THROW(loaded("a unix - - n - - x\n", "# b\nBad\n"), PostfixConfigurationError);
    EXPECT_TRUE(manager().hasModule("a", ModuleType::Unix, true));
    manager().loadModules(false);
    manager().storeModules(true);
    EXPECT_EQ("a unix - - n - - x\n", masterCf());
    EXPECT_EQ("# b\nBad\n", disabledFile());
}

PROCESS_TEST_F(ModuleManagerTest, ForcedLoadWithABrokenDisabledFileReplacesTheEnabledServicesOnly)
{
    ModuleManager& m = loaded("a unix - - n - - x\n", "c unix - - n - - x\n");
    support::writeFile(path_, "b unix - - n - - x\n");
    support::writeFile(disabledPath, "Bad\n");
    EXPECT_EQ(std::string("unable to parse ") + disabledPath + ": syntax error at position 0 near 'Bad'",
              exactMessageOf<PostfixConfigurationError>([&] { m.loadModules(true); }));
    EXPECT_FALSE(m.hasModule("a", ModuleType::Unix, true));
    EXPECT_TRUE(m.hasModule("b", ModuleType::Unix, true));
    EXPECT_TRUE(m.hasModule("c", ModuleType::Unix, false));
}

// If it counted as absent, the next store would replace it.
PROCESS_TEST_F(ModuleManagerTest, DisabledFileThatCannotBeReachedIsAnErrorAfterMasterCf)
{
    std::filesystem::create_symlink(disabledPath, disabledPath);
    EXPECT_EQ(std::string("filesystem error: cannot get file size: Too many levels of symbolic links [") +
                  disabledPath + "]",
              exactMessageOf<std::filesystem::filesystem_error>([this] { loaded("a unix - - n - - x\n"); }));
    EXPECT_TRUE(manager().hasModule("a", ModuleType::Unix, true));
}

PROCESS_TEST_F(ModuleManagerTest, FileInPlaceOfTheDisabledFilesDirectoryIsAnError)
{
    const std::filesystem::path directory = std::filesystem::path(disabledPath).parent_path();
    std::filesystem::remove(directory);
    support::writeFile(directory, "");
    const std::string message =
        exactMessageOf<std::filesystem::filesystem_error>([this] { loaded("# a\n"); });
    std::filesystem::remove(directory);
    std::filesystem::create_directory(directory);
    EXPECT_EQ(std::string("filesystem error: cannot get file size: Not a directory [") + disabledPath + "]",
              message);
}

PROCESS_TEST_F(ModuleManagerTest, SymbolicLinkToNothingIsAnAbsentDisabledFile)
{
    std::filesystem::create_symlink(scratch_.file("nothing"), disabledPath);
    ModuleManager& m = loaded("a unix - - n - - x\n");
    EXPECT_FALSE(m.hasModule("a", ModuleType::Unix, false));
}

PROCESS_TEST_F(ModuleManagerTest, ServiceIsRemovedByItsOwnName)
{
    ModuleManager& m = loaded("a-name-too-long-for-the-string-itself unix - - n - - x\n",
                              "a-name-too-long-for-the-string-itself unix - - n - - y\n");
    m.removeModule(m.getModule("a-name-too-long-for-the-string-itself", ModuleType::Unix, true).first.name,
                   ModuleType::Unix);
    EXPECT_FALSE(
        m.hasModule("a-name-too-long-for-the-string-itself", ModuleType::Unix, boost::indeterminate));
}

PROCESS_TEST_F(ModuleManagerTest, DirectoryInPlaceOfTheDisabledFileIsAnError)
{
    std::filesystem::create_directory(disabledPath);
    EXPECT_EQ(std::string("filesystem error: cannot get file size: Is a directory [") + disabledPath + "]",
              exactMessageOf<std::filesystem::filesystem_error>([this] { loaded("# a\n"); }));
}

PROCESS_TEST_F(ModuleManagerTest, UnreadableDisabledFileIsNamed)
{
    support::writeFile(path_, "# a\n");
    support::writeFile(disabledPath, "# b\n");
    ASSERT_EQ(0, ::chmod(scratch_.path().c_str(), 0755));
    ASSERT_EQ(0, ::chmod(disabledPath, 0));
    ModuleManager& m = manager();
    ASSERT_EQ(0, ::seteuid(65534));
    const std::string message = exactMessageOf<PostfixConfigurationError>([&] { m.loadModules(false); });
    ASSERT_EQ(0, ::seteuid(0));
    EXPECT_EQ(std::string("unable to open ") + disabledPath, message);
}

PROCESS_TEST_F(ModuleManagerTest, AbsentDisabledFileMeansNoDisabledServices)
{
    ModuleManager& m = loaded("a unix - - n - - x\n");
    EXPECT_FALSE(m.hasModule("a", ModuleType::Unix, false));
    m.storeModules(true);
    EXPECT_FALSE(hasDisabledFile());
}

// It is never written, so it stays as it is.
PROCESS_TEST_F(ModuleManagerTest, EmptyDisabledFileMeansNoDisabledServices)
{
    ModuleManager& m = loaded("a unix - - n - - x\n", "");
    EXPECT_FALSE(m.hasModule("a", ModuleType::Unix, false));
    const ino_t before = inode(disabledPath);
    m.storeModules(true);
    EXPECT_EQ(before, inode(disabledPath));
    EXPECT_EQ("", disabledFile());
}

// Without a file to read, the disabled services in memory outlive a forced load.
PROCESS_TEST_F(ModuleManagerTest, ForcedLoadWithoutDisabledFileKeepsDisabledServicesInMemory)
{
    ModuleManager& m = loaded("a unix - - n - - x\n");
    m.disableModule("a", ModuleType::Unix);
    m.loadModules(true);
    EXPECT_TRUE(m.hasModule("a", ModuleType::Unix, true));
    EXPECT_TRUE(m.hasModule("a", ModuleType::Unix, false));
    m.storeModules(false);
    EXPECT_FALSE(hasDisabledFile());
    m.storeModules(true);
    EXPECT_EQ("a unix - - n - - x\n", disabledFile());
}

PROCESS_TEST_F(ModuleManagerTest, ForcedLoadWithEmptyDisabledFileKeepsDisabledServicesInMemory)
{
    ModuleManager& m = loaded("a unix - - n - - x\n", "");
    m.disableModule("a", ModuleType::Unix);
    m.loadModules(true);
    EXPECT_TRUE(m.hasModule("a", ModuleType::Unix, false));
}

// --- storing

PROCESS_TEST_F(ModuleManagerTest, UnchangedFilesAreNotWritten)
{
    ModuleManager& m = loaded("a unix - - n - - x\n\n\n", "b unix - - n - - x\n\n\n");
    ASSERT_EQ(0, ::chmod(path_.c_str(), 0600));
    const ino_t enabledBefore = inode(path_);
    const ino_t disabledBefore = inode(disabledPath);
    m.storeModules(false);
    EXPECT_EQ(enabledBefore, inode(path_));
    EXPECT_EQ(disabledBefore, inode(disabledPath));
    EXPECT_EQ("a unix - - n - - x\n\n\n", masterCf());
    EXPECT_EQ("b unix - - n - - x\n\n\n", disabledFile());
    EXPECT_EQ(0600U, support::modeOf(path_));
    EXPECT_TRUE(support::namesIn(support::lockDirectory).empty());
}

PROCESS_TEST_F(ModuleManagerTest, ForcedStoreWritesBothFiles)
{
    ModuleManager& m = loaded("a unix - - n - - x\n\n\n", "b unix - - n - - x\n\n\n");
    ASSERT_EQ(0, ::chmod(path_.c_str(), 0600));
    ASSERT_EQ(0, ::chmod(disabledPath, 0600));
    m.storeModules(true);
    EXPECT_EQ("a unix - - n - - x\n", masterCf());
    EXPECT_EQ("b unix - - n - - x\n", disabledFile());
    EXPECT_EQ(0644U, support::modeOf(path_));
    EXPECT_EQ(0644U, support::modeOf(disabledPath));
}

PROCESS_TEST_F(ModuleManagerTest, OnlyTheChangedFileIsWritten)
{
    ModuleManager& m = loaded("a unix - - n - - x\n", "b unix - - n - - x\n");
    const ino_t enabledBefore = inode(path_);
    m.addModule(service("c", ModuleType::Unix, "y"), false);
    m.storeModules(false);
    EXPECT_EQ(enabledBefore, inode(path_));
    EXPECT_EQ("b unix - - n - - x\n\nc unix - - n - - y\n", disabledFile());
    const ino_t disabledBefore = inode(disabledPath);
    m.addModule(service("d", ModuleType::Unix, "y"), true);
    m.storeModules(false);
    EXPECT_EQ("a unix - - n - - x\n\nd unix - - n - - y\n", masterCf());
    EXPECT_EQ(disabledBefore, inode(disabledPath));
}

PROCESS_TEST_F(ModuleManagerTest, StoredChangesAreNotWrittenAgain)
{
    ModuleManager& m = loaded("a unix - - n - - x\n", "b unix - - n - - x\n");
    m.addModule(service("c", ModuleType::Unix, "y"), false);
    m.addModule(service("d", ModuleType::Unix, "y"), true);
    m.storeModules(false);
    const ino_t enabledBefore = inode(path_);
    const ino_t disabledBefore = inode(disabledPath);
    m.storeModules(false);
    EXPECT_EQ(enabledBefore, inode(path_));
    EXPECT_EQ(disabledBefore, inode(disabledPath));
}

PROCESS_TEST_F(ModuleManagerTest, EachFileIsStoredUnderItsOwnLock)
{
    ModuleManager& m = loaded("a unix - - n - - x\n", "b unix - - n - - x\n");
    m.storeModules(true);
    EXPECT_EQ((std::set<std::string>{support::lockNameOf(path_), support::lockNameOf(disabledPath)}),
              support::namesIn(support::lockDirectory));
}

// master.cf first: when it cannot be stored, the disabled file is not touched, and both changes stay to be
// stored.
PROCESS_TEST_F(ModuleManagerTest, FailedStoreStopsAndKeepsTheChanges)
{
    ModuleManager& m = loaded("a unix - - n - - x\n", "b unix - - n - - x\n");
    m.disableModule("a", ModuleType::Unix);
    std::filesystem::remove(path_);
    std::filesystem::create_directory(path_);
    EXPECT_THROW(m.storeModules(false), zorvo::mail::FSError);
    EXPECT_EQ("b unix - - n - - x\n", disabledFile());
    std::filesystem::remove(path_);
    m.storeModules(false);
    EXPECT_EQ("\n", masterCf());
    EXPECT_EQ("b unix - - n - - x\n\na unix - - n - - x\n", disabledFile());
}

PROCESS_TEST_F(ModuleManagerTest, FailureOfTheSecondFileLeavesTheFirstStored)
{
    ModuleManager& m = loaded("a unix - - n - - x\n# end\n", "b unix - - n - - x\n");
    m.disableModule("a", ModuleType::Unix);
    std::filesystem::remove(disabledPath);
    std::filesystem::create_directory(disabledPath);
    EXPECT_THROW(m.storeModules(false), zorvo::mail::FSError);
    EXPECT_EQ("# end\n", masterCf());
    const ino_t enabledBefore = inode(path_);
    std::filesystem::remove(disabledPath);
    m.storeModules(false);
    EXPECT_EQ(enabledBefore, inode(path_));
    EXPECT_EQ("b unix - - n - - x\n\na unix - - n - - x\n", disabledFile());
}

PROCESS_TEST_F(ModuleManagerTest, LastServiceGoneLeavesAnEmptyFile)
{
    ModuleManager& m = loaded("a unix - - n - - x");
    m.removeModule("a", ModuleType::Unix);
    m.storeModules(false);
    EXPECT_EQ("", masterCf());
}

// --- looking up

PROCESS_TEST_F(ModuleManagerTest, ServicesAreFoundInTheSetAskedFor)
{
    ModuleManager& m = loaded("a unix - - n - - x\n", "b unix - - n - - x\n");
    EXPECT_TRUE(m.hasModule("a", ModuleType::Unix, true));
    EXPECT_FALSE(m.hasModule("a", ModuleType::Unix, false));
    EXPECT_TRUE(m.hasModule("a", ModuleType::Unix, indeterminate));
    EXPECT_FALSE(m.hasModule("b", ModuleType::Unix, true));
    EXPECT_TRUE(m.hasModule("b", ModuleType::Unix, false));
    EXPECT_TRUE(m.hasModule("b", ModuleType::Unix, indeterminate));
    EXPECT_FALSE(m.hasModule("a", ModuleType::Inet, indeterminate));
    EXPECT_FALSE(m.hasModule("c", ModuleType::Unix, indeterminate));
}

PROCESS_TEST_F(ModuleManagerTest, LookupWorksWithoutDisabledServices)
{
    ModuleManager& m = loaded("a unix - - n - - x\n");
    EXPECT_TRUE(m.hasModule("a", ModuleType::Unix, true));
    EXPECT_FALSE(m.hasModule("a", ModuleType::Unix, false));
    EXPECT_TRUE(m.hasModule("a", ModuleType::Unix, indeterminate));
    EXPECT_FALSE(m.hasModule("b", ModuleType::Unix, indeterminate));
}

PROCESS_TEST_F(ModuleManagerTest, ServicesAreReturnedFromTheSetAskedFor)
{
    ModuleManager& m = loaded("a unix - - n - - enabled\nboth unix - - n - - enabled\n",
                              "b  unix - - n - - disabled\n  -v\nboth unix - - n - - disabled\n");
    EXPECT_EQ("a unix - - n - - enabled", m.getModule("a", ModuleType::Unix, true).second);
    EXPECT_EQ("a unix - - n - - enabled", m.getModule("a", ModuleType::Unix, indeterminate).second);
    EXPECT_EQ("b  unix - - n - - disabled\n  -v", m.getModule("b", ModuleType::Unix, false).second);
    EXPECT_EQ("b  unix - - n - - disabled\n  -v", m.getModule("b", ModuleType::Unix, indeterminate).second);
    EXPECT_EQ((std::list<std::string>{"disabled", "-v"}),
              m.getModule("b", ModuleType::Unix, indeterminate).first.command);
    EXPECT_EQ("both unix - - n - - enabled", m.getModule("both", ModuleType::Unix, true).second);
    EXPECT_EQ("both unix - - n - - disabled", m.getModule("both", ModuleType::Unix, false).second);
    EXPECT_EQ("both unix - - n - - enabled", m.getModule("both", ModuleType::Unix, indeterminate).second);
}

PROCESS_TEST_F(ModuleManagerTest, AbsentServiceIsNamedWhereverItWasLookedFor)
{
    ModuleManager& m = loaded("a unix - - n - - x\n", "b unix - - n - - x\n");
    EXPECT_EQ("no such module b",
              exactMessageOf<std::out_of_range>([&] { m.getModule("b", ModuleType::Unix, true); }));
    EXPECT_EQ("no such module a",
              exactMessageOf<std::out_of_range>([&] { m.getModule("a", ModuleType::Unix, false); }));
    EXPECT_EQ("no such module c",
              exactMessageOf<std::out_of_range>([&] { m.getModule("c", ModuleType::Unix, indeterminate); }));
    EXPECT_EQ("no such module a",
              exactMessageOf<std::out_of_range>([&] { m.getModule("a", ModuleType::Inet, true); }));
}

PROCESS_TEST_F(ModuleManagerTest, AbsentServiceIsNamedWithoutDisabledServices)
{
    ModuleManager& m = loaded("a unix - - n - - x\n");
    EXPECT_EQ("no such module a",
              exactMessageOf<std::out_of_range>([&] { m.getModule("a", ModuleType::Unix, false); }));
    EXPECT_EQ("no such module b",
              exactMessageOf<std::out_of_range>([&] { m.getModule("b", ModuleType::Unix, indeterminate); }));
}

PROCESS_TEST_F(ModuleManagerTest, EnabledContentIsMasterCf)
{
    ModuleManager& m = loaded("# c\nb unix - - n - - x\na inet n - n - - y\n", "d unix - - n - - x\n");
    EXPECT_EQ((std::list<std::string>{"# c", "b unix - - n - - x", "a inet n - n - - y", ""}),
              m.enabledContent().rawLines());
    EXPECT_EQ("a", m.enabledContent().modules().front().name);
}

// --- adding

PROCESS_TEST_F(ModuleManagerTest, NewServiceIsAppendedInCanonicalForm)
{
    ModuleManager& m = loaded("a unix - - n - - x");
    ModuleInfo info = service("b", ModuleType::UnixDgram, "y");
    info.privateMode = true;
    info.wakeup = 60;
    info.wakeupIfUsed = true;
    info.command.push_back("-v");
    m.addModule(info, true);
    m.storeModules(false);
    EXPECT_EQ("a unix - - n - - x\nb unix-dgram y - n 60? - y -v\n", masterCf());
    EXPECT_FALSE(hasDisabledFile());
}

// A file that ends with a line feed has an empty last line, and a new service comes after it.
PROCESS_TEST_F(ModuleManagerTest, NewServiceComesAfterTheEmptyLastLine)
{
    ModuleManager& m = loaded("a unix - - n - - x\n");
    m.addModule(service("b", ModuleType::Unix, "y"), true);
    m.addModule(service("c", ModuleType::Unix, "y"), true);
    m.storeModules(false);
    EXPECT_EQ("a unix - - n - - x\n\nb unix - - n - - y\nc unix - - n - - y\n", masterCf());
}

PROCESS_TEST_F(ModuleManagerTest, KnownServiceIsReplacedInPlace)
{
    ModuleManager& m = loaded("# top\na   unix - - n - - x\n  -o b=c\n# end\n");
    m.addModule(service("a", ModuleType::Unix, "y"), true);
    m.storeModules(false);
    EXPECT_EQ("# top\na unix - - n - - y\n# end\n", masterCf());
}

PROCESS_TEST_F(ModuleManagerTest, AddingAnEnabledServiceTakesItFromTheDisabled)
{
    ModuleManager& m = loaded("# e\n", "a unix - - n - - old\n# d\n");
    m.addModule(service("a", ModuleType::Unix, "new"), true);
    EXPECT_FALSE(m.hasModule("a", ModuleType::Unix, false));
    m.storeModules(false);
    EXPECT_EQ("# e\n\na unix - - n - - new\n", masterCf());
    EXPECT_EQ("# d\n", disabledFile());
}

// The same name with another type is another service.
PROCESS_TEST_F(ModuleManagerTest, AddingAnEnabledServiceLeavesOtherTypesDisabled)
{
    ModuleManager& m = loaded("# e\n", "a inet - - n - - old\n");
    const ino_t before = inode(disabledPath);
    m.addModule(service("a", ModuleType::Unix, "new"), true);
    m.storeModules(false);
    EXPECT_EQ(before, inode(disabledPath));
    EXPECT_TRUE(m.hasModule("a", ModuleType::Inet, false));
}

PROCESS_TEST_F(ModuleManagerTest, AddingADisabledServiceTakesItFromMasterCf)
{
    ModuleManager& m = loaded("# e\na   unix y y y - - old\n  -v\n# end\n");
    m.addModule(service("a", ModuleType::Unix, "new"), false);
    EXPECT_FALSE(m.hasModule("a", ModuleType::Unix, true));
    m.storeModules(false);
    EXPECT_EQ("# e\n# end\n", masterCf());
    EXPECT_EQ("a unix - - n - - new\n", disabledFile());
    EXPECT_EQ(0644U, support::modeOf(disabledPath));
}

PROCESS_TEST_F(ModuleManagerTest, AddingANewDisabledServiceLeavesMasterCfAlone)
{
    ModuleManager& m = loaded("# e\n");
    const ino_t before = inode(path_);
    m.addModule(service("a", ModuleType::Unix, "new"), false);
    m.storeModules(false);
    EXPECT_EQ(before, inode(path_));
    EXPECT_EQ("a unix - - n - - new\n", disabledFile());
}

PROCESS_TEST_F(ModuleManagerTest, KnownDisabledServiceIsReplacedInPlace)
{
    ModuleManager& m = loaded("# e\n", "a unix - - n - - old\n# d\n");
    m.addModule(service("a", ModuleType::Unix, "new"), false);
    m.storeModules(false);
    EXPECT_EQ("a unix - - n - - new\n# d\n", disabledFile());
}

// --- removing

PROCESS_TEST_F(ModuleManagerTest, ServiceIsRemovedFromBothSets)
{
    ModuleManager& m = loaded("# e\na unix - - n - - x\n", "# d\na unix - - n - - x\n");
    m.removeModule("a", ModuleType::Unix);
    EXPECT_FALSE(m.hasModule("a", ModuleType::Unix, indeterminate));
    m.storeModules(false);
    EXPECT_EQ("# e\n", masterCf());
    EXPECT_EQ("# d\n", disabledFile());
}

PROCESS_TEST_F(ModuleManagerTest, RemovingAnEnabledServiceChangesMasterCfOnly)
{
    ModuleManager& m = loaded("# e\na unix - - n - - x\n", "# d\nb unix - - n - - x\n");
    const ino_t before = inode(disabledPath);
    m.removeModule("a", ModuleType::Unix);
    m.storeModules(false);
    EXPECT_EQ("# e\n", masterCf());
    EXPECT_EQ(before, inode(disabledPath));
}

PROCESS_TEST_F(ModuleManagerTest, RemovingADisabledServiceChangesTheDisabledFileOnly)
{
    ModuleManager& m = loaded("# e\na unix - - n - - x\n", "# d\nb unix - - n - - x\n");
    const ino_t before = inode(path_);
    m.removeModule("b", ModuleType::Unix);
    m.storeModules(false);
    EXPECT_EQ(before, inode(path_));
    EXPECT_EQ("# d\n", disabledFile());
}

PROCESS_TEST_F(ModuleManagerTest, RemovingAnUnknownServiceChangesNothing)
{
    ModuleManager& m = loaded("a unix - - n - - x\n", "b unix - - n - - x\n");
    const ino_t enabledBefore = inode(path_);
    const ino_t disabledBefore = inode(disabledPath);
    m.removeModule("c", ModuleType::Unix);
    m.removeModule("a", ModuleType::Inet);
    m.storeModules(false);
    EXPECT_EQ(enabledBefore, inode(path_));
    EXPECT_EQ(disabledBefore, inode(disabledPath));
}

PROCESS_TEST_F(ModuleManagerTest, RemovingWorksWithoutDisabledServices)
{
    ModuleManager& m = loaded("# e\na unix - - n - - x\n");
    m.removeModule("a", ModuleType::Unix);
    m.removeModule("b", ModuleType::Unix);
    m.storeModules(false);
    EXPECT_EQ("# e\n", masterCf());
    EXPECT_FALSE(hasDisabledFile());
}

// --- enabling and disabling

const char* const entryWithComments = "sub  inet n - n - - smtpd # why\n"
                                      "# flush left\n"
                                      "\n"
                                      "  -o { a = $b, c }\r\n"
                                      "\t# indented\n"
                                      "    -v ";

PROCESS_TEST_F(ModuleManagerTest, DisabledServiceMovesWithItsText)
{
    ModuleManager& m = loaded(std::string("# above\n") + entryWithComments + "\n# below\n");
    m.disableModule("sub", ModuleType::Inet);
    EXPECT_FALSE(m.hasModule("sub", ModuleType::Inet, true));
    EXPECT_TRUE(m.hasModule("sub", ModuleType::Inet, false));
    m.storeModules(false);
    EXPECT_EQ("# above\n# below\n", masterCf());
    EXPECT_EQ(std::string(entryWithComments) + "\n", disabledFile());
}

PROCESS_TEST_F(ModuleManagerTest, ReenabledServiceKeepsItsTextAtTheEnd)
{
    ModuleManager& m = loaded(std::string("# above\n") + entryWithComments + "\n# below\n");
    m.disableModule("sub", ModuleType::Inet);
    m.storeModules(false);
    m.loadModules(true);
    m.enableModule("sub", ModuleType::Inet);
    EXPECT_TRUE(m.hasModule("sub", ModuleType::Inet, true));
    EXPECT_FALSE(m.hasModule("sub", ModuleType::Inet, false));
    m.storeModules(false);
    EXPECT_EQ(std::string("# above\n# below\n\n") + entryWithComments + "\n", masterCf());
    // What is left is the line feed's empty last line.
    EXPECT_EQ("\n", disabledFile());
}

PROCESS_TEST_F(ModuleManagerTest, MovingKeepsTheData)
{
    ModuleManager& m = loaded("a pass y y y 60? 5 x -v\n");
    m.disableModule("a", ModuleType::Pass);
    EXPECT_EQ("a pass y y y 60? 5 x -v", formatServiceLine(m.getModule("a", ModuleType::Pass, false).first));
    m.enableModule("a", ModuleType::Pass);
    EXPECT_EQ("a pass y y y 60? 5 x -v", formatServiceLine(m.getModule("a", ModuleType::Pass, true).first));
}

PROCESS_TEST_F(ModuleManagerTest, DisablingReplacesAnOlderDisabledServiceInPlace)
{
    ModuleManager& m = loaded("# e\na unix - - n - - new\n", "a unix - - n - - old\n# d\n");
    m.disableModule("a", ModuleType::Unix);
    m.storeModules(false);
    EXPECT_EQ("# e\n", masterCf());
    EXPECT_EQ("a unix - - n - - new\n# d\n", disabledFile());
}

PROCESS_TEST_F(ModuleManagerTest, DisablingADisabledOrUnknownServiceChangesNothing)
{
    ModuleManager& m = loaded("a unix - - n - - x\n", "b unix - - n - - x\n");
    const ino_t enabledBefore = inode(path_);
    const ino_t disabledBefore = inode(disabledPath);
    m.disableModule("b", ModuleType::Unix);
    m.disableModule("c", ModuleType::Unix);
    m.disableModule("a", ModuleType::Inet);
    m.storeModules(false);
    EXPECT_TRUE(m.hasModule("b", ModuleType::Unix, false));
    EXPECT_EQ(enabledBefore, inode(path_));
    EXPECT_EQ(disabledBefore, inode(disabledPath));
}

// Not even an empty set of disabled services results.
PROCESS_TEST_F(ModuleManagerTest, DisablingAnUnknownServiceMakesNoDisabledFile)
{
    ModuleManager& m = loaded("a unix - - n - - x\n");
    m.disableModule("c", ModuleType::Unix);
    m.storeModules(true);
    EXPECT_FALSE(hasDisabledFile());
}

PROCESS_TEST_F(ModuleManagerTest, EnablingAnEnabledServiceChangesNothing)
{
    ModuleManager& m = loaded("a unix - - n - - enabled\n", "a unix - - n - - disabled\n");
    const ino_t enabledBefore = inode(path_);
    const ino_t disabledBefore = inode(disabledPath);
    m.enableModule("a", ModuleType::Unix);
    m.storeModules(false);
    EXPECT_EQ("a unix - - n - - disabled", m.getModule("a", ModuleType::Unix, false).second);
    EXPECT_EQ(enabledBefore, inode(path_));
    EXPECT_EQ(disabledBefore, inode(disabledPath));
}

PROCESS_TEST_F(ModuleManagerTest, EnablingAnUnknownServiceNamesIt)
{
    ModuleManager& m = loaded("a unix - - n - - x\n", "b unix - - n - - x\n");
    EXPECT_EQ("no such module c",
              exactMessageOf<std::out_of_range>([&] { m.enableModule("c", ModuleType::Unix); }));
    EXPECT_EQ("no such module b",
              exactMessageOf<std::out_of_range>([&] { m.enableModule("b", ModuleType::Inet); }));
    const ino_t enabledBefore = inode(path_);
    m.storeModules(false);
    EXPECT_EQ(enabledBefore, inode(path_));
}

PROCESS_TEST_F(ModuleManagerTest, EnablingAnUnknownServiceNamesItWithoutDisabledServices)
{
    ModuleManager& m = loaded("a unix - - n - - x\n");
    EXPECT_EQ("no such module c",
              exactMessageOf<std::out_of_range>([&] { m.enableModule("c", ModuleType::Unix); }));
}

// --- with the real Postfix

class ModuleManagerPostfixTest : public support::FreshProcessTest {
protected:
    ModuleManagerPostfixTest() { support::ageMainCf(); }

    /// What postconf(1) makes of the entry; empty without it. Fails when it cannot read the file.
    static std::string postfixSees(const std::string& nameAndType)
    {
        std::istringstream words(
            support::outputOf(support::postconfPath + std::string(" -M ") + nameAndType));
        std::string line;
        for (std::string word; words >> word;)
            line += (line.empty() ? "" : " ") + word;
        return line;
    }
};

// Postfix accepts the file after each step, and reads the entry as it was.
PROCESS_TEST_F(ModuleManagerPostfixTest, PostfixFollowsAServiceThroughDisablingAndEnabling)
{
    const std::string before = support::readFile(support::masterCfPath);
    const std::string entry = "10025 inet n - n - - smtpd\n# flush left\n  -o a=$b,c\n  # indented\n  -v";
    support::writeFile(support::masterCfPath, before + entry + "\n");
    const std::string seen = "10025 inet n - n - - smtpd -o a=$b,c -v";
    ASSERT_EQ(seen, postfixSees("10025/inet"));

    ModuleManager& m = ModuleManager::getInstance();
    m.loadModules(false);
    m.disableModule("10025", ModuleType::Inet);
    m.storeModules(false);
    EXPECT_EQ(before, support::readFile(support::masterCfPath));
    EXPECT_EQ("", postfixSees("10025/inet"));
    support::checkPostfix();

    m.enableModule("10025", ModuleType::Inet);
    m.storeModules(false);
    EXPECT_EQ(before + "\n" + entry + "\n", support::readFile(support::masterCfPath));
    EXPECT_EQ(seen, postfixSees("10025/inet"));
    support::checkPostfix();

    m.addModule(service("10025", ModuleType::Inet, "smtpd"), false);
    m.storeModules(false);
    EXPECT_EQ("", postfixSees("10025/inet"));
    EXPECT_EQ("10025 inet - - n - - smtpd\n", support::readFile(disabledPath));
    support::checkPostfix();
}

PROCESS_TEST_F(ModuleManagerPostfixTest, MasterCfOfTheConfigurationDirectoryIsUsed)
{
    ModuleManager& m = ModuleManager::getInstance();
    m.loadModules(false);
    m.removeModule("smtp", ModuleType::Inet);
    m.storeModules(false);
    EXPECT_EQ("", postfixSees("smtp/inet"));
    EXPECT_EQ(std::set<std::string>{support::lockNameOf(support::masterCfPath)},
              support::namesIn(support::lockDirectory));
}

} // namespace
