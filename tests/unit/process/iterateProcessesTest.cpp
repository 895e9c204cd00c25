// iterateProcesses: what a walk over /proc reports about real processes, and about made-up ones in an empty
// file system mounted at /proc.
#include "process/iterateProcesses.h"

#include "common/zorvo_log.h"
#include "support/Capture.h"
#include "support/Mounts.h"
#include "support/ScratchDir.h"
#include "unit/process/FailingCall.h"
#include "unit/process/ProcessTestTools.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

using faults::Call;
using faults::FailingCall;
using support::forkChild;
using support::ScratchDir;
using support::waitFor;
using support::writeFile;
using testing::ElementsAre;
using testing::Key;
using testing::UnorderedElementsAre;
using tools::Gate;
using tools::inOwnProcess;

namespace {

constexpr unsigned everything = PROCESS_INFO_PARENT | PROCESS_INFO_COMMAND | PROCESS_INFO_EXECUTABLE |
                                PROCESS_INFO_ARGUMENTS | PROCESS_INFO_UIDS | PROCESS_INFO_GIDS |
                                PROCESS_INFO_OWNER;

/// A copy of a record.
struct Record {
    int parent = 0;
    std::string command = "(null)";
    std::string executable = "(null)";
    std::vector<std::string> arguments = {"(null)"};
    std::vector<int> uids;
    std::vector<int> gids;
    int owner = 0;
};

using Records = std::map<int, Record>;

int collect(process_info* info, void* context)
{
    Record record;
    record.parent = info->parent_pid;
    if (info->command != nullptr)
        record.command = info->command;
    if (info->executable != nullptr)
        record.executable = info->executable;
    if (info->argv != nullptr) {
        record.arguments.clear();
        for (char* const* argument = info->argv; *argument != nullptr; ++argument)
            record.arguments.emplace_back(*argument);
    }
    record.uids.assign(info->uid, info->uid + 4);
    record.gids.assign(info->gid, info->gid + 4);
    record.owner = info->owner_uid;
    static_cast<Records*>(context)->emplace(info->pid, record);
    return 1;
}

/// All processes.
Records walk(unsigned flags)
{
    Records records;
    EXPECT_EQ(iterateProcesses(flags, collect, &records), 1);
    return records;
}

/// One process; the test fails when it was not visited.
Record recordOf(pid_t pid, unsigned flags)
{
    const Records records = walk(flags);
    const auto found = records.find(pid);
    EXPECT_NE(found, records.end());
    return found == records.end() ? Record() : found->second;
}

/// A child that waits for its end; it has done `preparation` when this exists.
class Waiting {
public:
    explicit Waiting(const std::function<void()>& preparation = [] {})
    {
        Gate ready;
        pid_ = forkChild([&] {
            preparation();
            ready.open();
            for (;;)
                ::pause();
            return 0;
        });
        ready.wait();
    }
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;
    ~Waiting() { end(); }

    pid_t pid() const { return pid_; }

    void end()
    {
        if (pid_ == -1)
            return;
        ::kill(pid_, SIGKILL);
        waitFor(pid_);
        pid_ = -1;
    }

private:
    pid_t pid_ = -1;
};

/// A child with this name.
Waiting named(const char* name)
{
    return Waiting([name] { ::prctl(PR_SET_NAME, name); });
}

/// Runs `body` where /proc is an empty directory that it may fill.
void withMadeUpProc(const std::function<void()>& body)
{
    inOwnProcess([&body] {
        ASSERT_TRUE(support::makeMountsPrivate());
        ASSERT_TRUE(support::mountEmpty("/proc"));
        body();
    });
}

void makeDirectory(const std::string& path)
{
    std::filesystem::create_directories(path);
}

/// Adds a made-up process with all its files.
void makeUp(int pid, const std::string& name, int parent)
{
    const std::string directory = "/proc/" + std::to_string(pid);
    makeDirectory(directory);
    writeFile(directory + "/stat",
              std::to_string(pid) + " (" + name + ") S " + std::to_string(parent) + " 5 5 0 -1 4194304\n");
    writeFile(directory + "/status", "Name:\t" + name +
                                         "\nUmask:\t0022\nUid:\t11\t12\t13\t14\n"
                                         "Gid:\t21\t22\t23\t24\nFDSize:\t64\n");
    writeFile(directory + "/cmdline", name + std::string("\0-x\0", 4));
    std::filesystem::create_symlink("/usr/bin/" + name, directory + "/exe");
}

class IterateProcessesTest : public tools::NothingLeftTest {};

class IterateMadeUpProcessesTest : public IterateProcessesTest {
protected:
    void SetUp() override
    {
        if (!support::canMount())
            GTEST_SKIP() << "no private mounts here";
    }
};

} // namespace

// ---- Real processes

TEST_F(IterateProcessesTest, EveryProcessIsVisitedOnce)
{
    const Waiting first;
    const Waiting second;
    std::vector<int> pids;
    EXPECT_EQ(iterateProcesses(
                  0,
                  [](process_info* info, void* context) {
                      static_cast<std::vector<int>*>(context)->push_back(info->pid);
                      return 1;
                  },
                  &pids),
              1);
    EXPECT_EQ(std::count(pids.begin(), pids.end(), ::getpid()), 1);
    EXPECT_EQ(std::count(pids.begin(), pids.end(), first.pid()), 1);
    EXPECT_EQ(std::count(pids.begin(), pids.end(), second.pid()), 1);
    EXPECT_EQ(std::count(pids.begin(), pids.end(), 0), 0);
    EXPECT_EQ(std::set<int>(pids.begin(), pids.end()).size(), pids.size());
}

TEST_F(IterateProcessesTest, OnlyRequestedFieldsAreFilled)
{
    const Record record = recordOf(::getpid(), 0);
    EXPECT_THAT(record.parent, testing::AnyOf(0, -1));
    EXPECT_EQ(record.command, "(null)");
    EXPECT_EQ(record.executable, "(null)");
    EXPECT_THAT(record.arguments, ElementsAre("(null)"));
    EXPECT_THAT(record.owner, testing::AnyOf(0, -1));
}

TEST_F(IterateProcessesTest, ParentAndCommandComeWithEitherFlag)
{
    const Waiting child = named("some-name");
    for (const unsigned flags : {unsigned{PROCESS_INFO_PARENT}, unsigned{PROCESS_INFO_COMMAND},
                                 PROCESS_INFO_PARENT | PROCESS_INFO_COMMAND}) {
        const Record record = recordOf(child.pid(), flags);
        EXPECT_EQ(record.parent, ::getpid());
        EXPECT_EQ(record.command, "some-name");
        EXPECT_EQ(record.executable, "(null)");
        EXPECT_THAT(record.arguments, ElementsAre("(null)"));
    }
}

// The pattern stops at white space, and what follows is not where the parent is looked for.
TEST_F(IterateProcessesTest, NameWithABlankIsCutToItsFirstWord)
{
    const Waiting child = named("two words");
    const Record record = recordOf(child.pid(), PROCESS_INFO_COMMAND);
    EXPECT_EQ(record.command, "two");
    EXPECT_EQ(record.parent, -1);
}

TEST_F(IterateProcessesTest, NameWithParenthesesLosesOnlyTheClosingOneOfTheFile)
{
    const std::map<std::string, std::string> names = {{"(x)", "(x)"}, {"x)", "x)"},     {"((", "(("},
                                                      {"a)b", "a)b"}, {"))))", "))))"}, {"a) b", "a"}};
    for (const auto& [name, command] : names) {
        SCOPED_TRACE(name);
        const Waiting child = named(name.c_str());
        EXPECT_EQ(recordOf(child.pid(), PROCESS_INFO_COMMAND).command, command);
    }
}

TEST_F(IterateProcessesTest, ExecutableIsTheFile)
{
    char self[4096];
    const ssize_t length = ::readlink("/proc/self/exe", self, sizeof self);
    ASSERT_GT(length, 0);
    EXPECT_EQ(recordOf(::getpid(), PROCESS_INFO_EXECUTABLE).executable,
              std::string(self, static_cast<size_t>(length)));
}

TEST_F(IterateProcessesTest, ArgumentsAreTheWholeVector)
{
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    int out[2];
    ASSERT_EQ(::pipe2(out, O_CLOEXEC), 0);
    const pid_t child = forkChild([&] {
        ::dup2(ends[0], 0);
        ::dup2(out[1], 1);
        return ::execl("/bin/sh", "my name", "-c", "echo ready; read x; exit 0", "", "two words",
                       "0123456789", "01234567", nullptr);
    });
    char byte = 0;
    ASSERT_EQ(::read(out[0], &byte, 1), 1); // The program is running.
    const Record record = recordOf(child, PROCESS_INFO_ARGUMENTS);
    ::close(ends[0]);
    ::close(ends[1]);
    ::close(out[0]);
    ::close(out[1]);
    waitFor(child);
    EXPECT_THAT(record.arguments, ElementsAre("my name", "-c", "echo ready; read x; exit 0", "", "two words",
                                              "0123456789", "01234567"));
    EXPECT_EQ(record.command, "(null)");
}

TEST_F(IterateProcessesTest, ZombieHasNoArgumentsAndNoExecutable)
{
    const pid_t child = forkChild([] { return 0; });
    tools::waitUntilEnded(child);
    const Record record = recordOf(child, PROCESS_INFO_ARGUMENTS | PROCESS_INFO_PARENT);
    EXPECT_TRUE(record.arguments.empty());
    EXPECT_EQ(record.parent, ::getpid());
    EXPECT_EQ(walk(PROCESS_INFO_EXECUTABLE).count(child), 0U); // It cannot be read: passed over.
    waitFor(child);
}

TEST_F(IterateProcessesTest, UserAndGroupIdsComeWithEitherFlag)
{
    const Waiting child([] {
        if (::setresgid(2001, 2002, 2003) != 0 || ::setresuid(1001, 1002, 1003) != 0)
            ::_exit(1);
    });
    for (const unsigned flags : {unsigned{PROCESS_INFO_UIDS}, unsigned{PROCESS_INFO_GIDS}}) {
        const Record record = recordOf(child.pid(), flags);
        EXPECT_THAT(record.uids, ElementsAre(1001, 1002, 1003, 1002));
        EXPECT_THAT(record.gids, ElementsAre(2001, 2002, 2003, 2002));
        EXPECT_EQ(record.command, "(null)");
    }
}

TEST_F(IterateProcessesTest, OwnerIsThatOfTheDirectory)
{
    const Waiting child([] {
        if (::setresgid(2001, 2001, 2001) != 0 || ::setresuid(1001, 1001, 1001) != 0 ||
            ::prctl(PR_SET_DUMPABLE, 1) != 0)
            ::_exit(1);
    });
    EXPECT_EQ(recordOf(child.pid(), PROCESS_INFO_OWNER).owner, 1001);
    EXPECT_EQ(recordOf(::getpid(), PROCESS_INFO_OWNER).owner, static_cast<int>(::geteuid()));
}

TEST_F(IterateProcessesTest, AllFlagsFillEverything)
{
    const Waiting child = named("some-name");
    const Record record = recordOf(child.pid(), everything);
    const Record own = recordOf(::getpid(), everything);
    EXPECT_EQ(record.parent, ::getpid());
    EXPECT_EQ(record.command, "some-name");
    EXPECT_EQ(record.executable, own.executable);
    EXPECT_EQ(record.arguments, own.arguments);
    EXPECT_FALSE(own.arguments.empty());
    EXPECT_THAT(record.uids, ElementsAre(::getuid(), ::geteuid(), ::geteuid(), ::geteuid()));
    EXPECT_EQ(record.owner, static_cast<int>(::geteuid()));
}

TEST_F(IterateProcessesTest, CallbackBelowOneStopsAndItsResultIsReturned)
{
    const Waiting first;
    const Waiting second;
    struct Context {
        int result;
        int calls;
    };
    const auto callback = [](process_info*, void* context) {
        ++static_cast<Context*>(context)->calls;
        return static_cast<Context*>(context)->result;
    };
    for (const int result : {0, -1, -77}) {
        Context context{result, 0};
        EXPECT_EQ(iterateProcesses(0, callback, &context), result);
        EXPECT_EQ(context.calls, 1);
    }
    for (const int result : {1, 2, 77}) {
        Context context{result, 0};
        EXPECT_EQ(iterateProcesses(0, callback, &context), result);
        EXPECT_GE(context.calls, 3);
    }
}

TEST_F(IterateProcessesTest, CallbackCanStopInTheMiddle)
{
    const Waiting first;
    const Waiting second;
    int calls = 0;
    EXPECT_EQ(iterateProcesses(
                  0, [](process_info*, void* context) { return ++*static_cast<int*>(context) == 2 ? -5 : 1; },
                  &calls),
              -5);
    EXPECT_EQ(calls, 2);
}

namespace {

/// Ends the other of two children as soon as one of them is visited.
struct Vanishing {
    Waiting first;
    Waiting second;
    Records seen;

    static int callback(process_info* info, void* context)
    {
        auto& self = *static_cast<Vanishing*>(context);
        collect(info, &self.seen);
        if (info->pid == self.first.pid())
            self.second.end();
        else if (info->pid == self.second.pid())
            self.first.end();
        return 1;
    }
};

} // namespace

TEST_F(IterateProcessesTest, ProcessThatVanishesDuringTheWalkIsPassedOver)
{
    for (const unsigned flags : {unsigned{PROCESS_INFO_PARENT}, unsigned{PROCESS_INFO_EXECUTABLE},
                                 unsigned{PROCESS_INFO_ARGUMENTS}, unsigned{PROCESS_INFO_UIDS}, everything}) {
        SCOPED_TRACE(flags);
        Vanishing children;
        const pid_t first = children.first.pid();
        const pid_t second = children.second.pid();
        support::Capture capture;
        const int result = iterateProcesses(flags, Vanishing::callback, &children);
        EXPECT_EQ(capture.out(), "");
        EXPECT_EQ(capture.err(), "");
        EXPECT_EQ(result, 1);
        EXPECT_EQ(children.seen.count(first) + children.seen.count(second), 1U);
        EXPECT_EQ(children.seen.count(::getpid()), 1U);
    }
}

// A process is not passed over because of its owner, which is reported as unknown.
TEST_F(IterateProcessesTest, OwnerOfAVanishedProcessIsMinusOne)
{
    Vanishing children;
    const pid_t first = children.first.pid();
    const pid_t second = children.second.pid();
    EXPECT_EQ(iterateProcesses(PROCESS_INFO_OWNER, Vanishing::callback, &children), 1);
    ASSERT_EQ(children.seen.count(first), 1U);
    ASSERT_EQ(children.seen.count(second), 1U);
    EXPECT_THAT((std::vector<int>{children.seen[first].owner, children.seen[second].owner}),
                UnorderedElementsAre(-1, static_cast<int>(::geteuid())));
}

// chroot(2) hides /proc.
TEST_F(IterateProcessesTest, WithoutProcTheWalkFailsAndIsLogged)
{
    const ScratchDir scratch;
    for (const int level : {6, 3, 2}) {
        const support::ChildResult result = support::runInChild([&scratch, level] {
            if (::chroot(scratch.path().c_str()) != 0)
                return 99;
            LogLevel = level;
            Records records;
            return iterateProcesses(0, collect, &records) == -1 && records.empty() ? 0 : 1;
        });
        EXPECT_EQ(result.status, 0);
        const std::string text =
            level < 3 ? "" : "unable to open /proc filesystem: No such file or directory\n\n";
        EXPECT_EQ(result.out, text);
        EXPECT_EQ(result.err, text);
    }
}

TEST_F(IterateProcessesTest, InterruptedCallsAreRepeated)
{
    const Waiting child = named("some-name");
    for (const Call call : {Call::open, Call::read, Call::close, Call::closeNever})
        for (int nth = 1; nth < 2000; ++nth) {
            FailingCall interrupted(call, nth, EINTR);
            const Record record = recordOf(child.pid(), everything);
            interrupted.stop();
            EXPECT_EQ(record.command, "some-name");
            EXPECT_EQ(record.parent, ::getpid());
            if (!interrupted.happened() || HasFailure())
                break;
        }
}

// ---- Made-up processes

TEST_F(IterateMadeUpProcessesTest, EmptyProcGivesOneAndNoCall)
{
    withMadeUpProc([] {
        Records records;
        EXPECT_EQ(iterateProcesses(everything, collect, &records), 1);
        EXPECT_TRUE(records.empty());
    });
}

TEST_F(IterateMadeUpProcessesTest, OnlyDirectoriesWithANumberCount)
{
    withMadeUpProc([] {
        for (const char* const name :
             {"0", "00", "x", "12x", "x12", "-12", "+12", " 12", "1 2", "1.2", "self", "sys"})
            makeDirectory(std::string("/proc/") + name);
        writeFile("/proc/77", "");
        std::filesystem::create_symlink("/proc/12", "/proc/78");
        makeDirectory("/proc/12");
        makeDirectory("/proc/4194304");
        Records records;
        EXPECT_EQ(iterateProcesses(0, collect, &records), 1);
        EXPECT_THAT(records, UnorderedElementsAre(Key(12), Key(4194304)));
    });
}

// Not every file system tells the type of an entry; then the file itself does, and a link is not followed.
TEST_F(IterateMadeUpProcessesTest, EntriesOfUnknownTypeAreLookedAt)
{
    withMadeUpProc([] {
        makeDirectory("/proc/12");
        makeDirectory("/proc/self");
        writeFile("/proc/77", "");
        std::filesystem::create_symlink("/proc/12", "/proc/78");
        std::filesystem::create_symlink("/nowhere", "/proc/79");
        const faults::UntypedEntries untyped;
        Records records;
        EXPECT_EQ(iterateProcesses(0, collect, &records), 1);
        EXPECT_THAT(records, UnorderedElementsAre(Key(12)));
    });
}

TEST_F(IterateMadeUpProcessesTest, AllFieldsComeFromTheirFiles)
{
    withMadeUpProc([] {
        makeUp(12, "tool", 7);
        ASSERT_EQ(::chown("/proc/12", 1234, 5678), 0);
        const Record record = recordOf(12, everything);
        EXPECT_EQ(record.parent, 7);
        EXPECT_EQ(record.command, "tool");
        EXPECT_EQ(record.executable, "/usr/bin/tool");
        EXPECT_THAT(record.arguments, ElementsAre("tool", "-x"));
        EXPECT_THAT(record.uids, ElementsAre(11, 12, 13, 14));
        EXPECT_THAT(record.gids, ElementsAre(21, 22, 23, 24));
        EXPECT_EQ(record.owner, 1234);
    });
}

// Each file is needed only for the fields that come from it.
TEST_F(IterateMadeUpProcessesTest, ProcessWithoutARequestedFileIsPassedOver)
{
    const std::map<std::string, unsigned> flags = {{"stat", PROCESS_INFO_PARENT | PROCESS_INFO_COMMAND},
                                                   {"exe", PROCESS_INFO_EXECUTABLE},
                                                   {"cmdline", PROCESS_INFO_ARGUMENTS},
                                                   {"status", PROCESS_INFO_UIDS | PROCESS_INFO_GIDS}};
    for (const auto& [file, needing] : flags) {
        SCOPED_TRACE(file);
        withMadeUpProc([&file = file, needing = needing] {
            makeUp(12, "without", 1);
            std::filesystem::remove("/proc/12/" + file);
            makeUp(13, "with", 1);
            for (unsigned flag = 1; flag <= PROCESS_INFO_OWNER; flag <<= 1U) {
                SCOPED_TRACE(flag);
                Records records;
                EXPECT_EQ(iterateProcesses(flag, collect, &records), 1);
                EXPECT_EQ(records.count(12), (flag & needing) != 0 ? 0U : 1U);
                EXPECT_EQ(records.count(13), 1U);
            }
            Records records;
            EXPECT_EQ(iterateProcesses(everything, collect, &records), 1);
            EXPECT_THAT(records, UnorderedElementsAre(Key(13)));
        });
    }
}

TEST_F(IterateMadeUpProcessesTest, ProcessWithAnUnreadableStatIsPassedOver)
{
    withMadeUpProc([] {
        makeUp(12, "tool", 1);
        for (const char* const text : {"", "12", "12 ", "12 (", "tool", "x (tool) S 1", "12 tool S 1"}) {
            SCOPED_TRACE(text);
            writeFile("/proc/12/stat", text);
            EXPECT_TRUE(walk(PROCESS_INFO_COMMAND).empty());
        }
    });
}

TEST_F(IterateMadeUpProcessesTest, ProcessWithoutAllIdsIsPassedOver)
{
    withMadeUpProc([] {
        makeUp(12, "tool", 1);
        for (const char* const text : {"", "Name:\ttool\n", "Uid:\t1\t2\t3\t4\n", "Gid:\t1\t2\t3\t4\n",
                                       "Uid:\t1\t2\t3\nGid:\t1\t2\t3\t4\n",
                                       "Uid:\t1\t2\t3\t4\nGid:\t1\t2\t3\n", "Uid:\tx\nGid:\t1\t2\t3\t4\n"}) {
            SCOPED_TRACE(text);
            writeFile("/proc/12/status", text);
            EXPECT_TRUE(walk(PROCESS_INFO_UIDS).empty());
            EXPECT_TRUE(walk(PROCESS_INFO_GIDS).empty());
        }
        writeFile("/proc/12/status", "Gid:\t21\t22\t23\t24\nOther:\t5\nUid:\t11\t12\t13\t14");
        const Record record = recordOf(12, PROCESS_INFO_UIDS);
        EXPECT_THAT(record.uids, ElementsAre(11, 12, 13, 14));
        EXPECT_THAT(record.gids, ElementsAre(21, 22, 23, 24));
    });
}

// Read ten bytes at a time: lengths around the multiples of ten, and many.
TEST_F(IterateMadeUpProcessesTest, ArgumentsOfEveryLengthAreWhole)
{
    withMadeUpProc([] {
        makeUp(12, "tool", 1);
        for (const size_t length :
             {0U, 1U, 8U, 9U, 10U, 11U, 18U, 19U, 20U, 21U, 99U, 100U, 4096U, 300000U}) {
            SCOPED_TRACE(length);
            const std::string argument(length, 'a');
            writeFile("/proc/12/cmdline", argument + '\0' + "last" + '\0');
            EXPECT_THAT(recordOf(12, PROCESS_INFO_ARGUMENTS).arguments, ElementsAre(argument, "last"));
        }
        std::string text;
        std::vector<std::string> expected;
        for (int i = 0; i < 5000; ++i) {
            expected.push_back("argument" + std::to_string(i));
            text += expected.back() + '\0';
        }
        writeFile("/proc/12/cmdline", text);
        EXPECT_EQ(recordOf(12, PROCESS_INFO_ARGUMENTS).arguments, expected);
    });
}

TEST_F(IterateMadeUpProcessesTest, EmptyCmdlineIsAnEmptyVector)
{
    withMadeUpProc([] {
        makeUp(12, "tool", 1);
        writeFile("/proc/12/cmdline", "");
        EXPECT_TRUE(recordOf(12, PROCESS_INFO_ARGUMENTS).arguments.empty());
    });
}

TEST_F(IterateMadeUpProcessesTest, LongExecutableIsWhole)
{
    withMadeUpProc([] {
        makeUp(12, "tool", 1);
        std::filesystem::remove("/proc/12/exe");
        const std::string target = "/" + std::string(4000, 'e'); // tmpfs takes links below 4096 bytes.
        std::filesystem::create_symlink(target, "/proc/12/exe");
        EXPECT_EQ(recordOf(12, PROCESS_INFO_EXECUTABLE).executable, target);
    });
}

// One process's long texts are not left over in the next one's record.
TEST_F(IterateMadeUpProcessesTest, RecordsDoNotMix)
{
    withMadeUpProc([] {
        for (int pid = 1; pid <= 50; ++pid)
            makeUp(pid, std::string(static_cast<size_t>(pid % 7 * 10 + 1), static_cast<char>('a' + pid % 26)),
                   pid % 5);
        writeFile("/proc/9/cmdline", "");
        const Records records = walk(everything);
        EXPECT_EQ(records.size(), 50U);
        for (const auto& [pid, record] : records) {
            const std::string name(static_cast<size_t>(pid % 7 * 10 + 1), static_cast<char>('a' + pid % 26));
            EXPECT_EQ(record.command, name);
            EXPECT_EQ(record.parent, pid % 5);
            EXPECT_EQ(record.executable, "/usr/bin/" + name);
            if (pid != 9)
                EXPECT_THAT(record.arguments, ElementsAre(name, "-x"));
            else
                EXPECT_TRUE(record.arguments.empty());
        }
    });
}
