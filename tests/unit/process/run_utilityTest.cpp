// run_utility: real programs run by path, by name and by the shell: results, and what is reported where.
#include "process/run_utility.h"

#include "common/zorvo_log.h"
#include "process/signals.h"
#include "support/Capture.h"
#include "support/Mounts.h"
#include "support/OpenFds.h"
#include "support/ScratchDir.h"
#include "unit/process/ExecTestTools.h"
#include "unit/process/FailingCall.h"
#include "unit/process/ProcessTestTools.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

using namespace faults;
using namespace support;
using namespace tools;

namespace {

class PathExecTest : public NothingLeftTest {};
class UtilExecTest : public NothingLeftTest {};
class PopenExecTest : public NothingLeftTest {};

} // namespace

// ---- path_exec and path_exec_raw

TEST_F(PathExecTest, PathIsPutInFrontOfTheList)
{
    const Seen seen = see([] { return path_exec(sh, "-c", "echo \"$0|$1\" >&2; exit 3", "a", "b", end); });
    EXPECT_EQ(seen.result, 3);
    EXPECT_EQ(seen.out, "/bin/sh execution failed:\na|b\n");
    EXPECT_EQ(seen.err, seen.out);
    const Seen name =
        see([] { return path_exec(sh, "-c", "tr '\\0' ' ' < /proc/$$/cmdline >&2; exit 3", end); });
    EXPECT_EQ(name.out,
              "/bin/sh execution failed:\n/bin/sh -c tr '\\0' ' ' < /proc/$$/cmdline >&2; exit 3 \n");
}

TEST_F(PathExecTest, RawListIsTheWholeVector)
{
    const Seen seen = see([] {
        return path_exec_raw(sh, "my-name", "-c", "tr '\\0' ' ' < /proc/$$/cmdline >&2; exit 3", end);
    });
    EXPECT_EQ(seen.result, 3);
    EXPECT_EQ(seen.out,
              "/bin/sh execution failed:\nmy-name -c tr '\\0' ' ' < /proc/$$/cmdline >&2; exit 3 \n");
}

TEST_F(PathExecTest, SuccessIsSilent)
{
    Seen seen = see([] { return path_exec("/bin/echo", "text", end); });
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.out, "");
    EXPECT_EQ(seen.err, "");
    seen = see([] { return path_exec_raw("/bin/echo", "echo", "text", end); });
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.out, "");
}

TEST_F(PathExecTest, RawListIsCutAfterAHundred)
{
    const Seen seen = see([] {
        return path_exec_raw(sh, "sh", "-c", "printf '%s\\n' \"$@\"; exit 3", "name", HUNDRED, "more", end);
    });
    EXPECT_EQ(seen.err, numbers(96) + "/bin/sh execution failed (no output)\n");
}

TEST_F(PathExecTest, ListIsCutAfterAHundred)
{
    const Seen seen = see(
        [] { return path_exec(sh, "-c", "printf '%s\\n' \"$@\"; exit 3", "name", HUNDRED, "more", end); });
    EXPECT_EQ(seen.err, numbers(97) + "/bin/sh execution failed (no output)\n");
}

// ---- util_exec, util_exec_args and util_libexec

namespace {

const char* const reporter = "#!/bin/sh\nprintf '<%s>' \"$0\" \"$@\" >&2\nexit 3\n";

void writeTool(const std::string& path)
{
    support::writeFile(path, reporter);
    ASSERT_EQ(::chmod(path.c_str(), 0755), 0);
}

/// Runs `body` where /usr/local/maru/admin/sbin and /usr/lib64/zorvo-9.0 hold a program "tool" each, which
/// reports how it was started.
void withTools(const std::function<void()>& body)
{
    inOwnProcess([&body] {
        const ScratchDir scratch;
        ASSERT_TRUE(support::makeMountsPrivate());
        ASSERT_TRUE(support::mountEmpty("/usr/local"));
        std::filesystem::create_directories("/usr/local/maru/admin/sbin");
        writeTool("/usr/local/maru/admin/sbin/tool");
        // The dynamic loader has to stay where it is.
        ASSERT_TRUE(support::mountEmpty(scratch.path()));
        std::filesystem::copy("/usr/lib64", scratch.path(),
                              std::filesystem::copy_options::copy_symlinks |
                                  std::filesystem::copy_options::recursive);
        std::filesystem::create_directory(scratch.file("zorvo-9.0"));
        writeTool(scratch.file("zorvo-9.0/tool"));
        ASSERT_EQ(::mount(scratch.path().c_str(), "/usr/lib64", nullptr, MS_BIND, nullptr), 0);
        body();
        ::umount("/usr/lib64");
        ::umount(scratch.path().c_str());
    });
}

} // namespace

TEST_F(UtilExecTest, RunsTheProductsUtility)
{
    if (!support::canMount())
        GTEST_SKIP() << "no private mounts here";
    withTools([] {
        const Seen seen = see([] { return util_exec("tool", "a", "", "b c", end); });
        EXPECT_EQ(seen.result, 3);
        EXPECT_EQ(seen.out, "/usr/local/maru/admin/sbin/tool execution failed:\n"
                            "</usr/local/maru/admin/sbin/tool><a><><b c>\n");
        EXPECT_EQ(seen.err, seen.out);
    });
}

TEST_F(UtilExecTest, ArgsRunsTheProductsUtility)
{
    if (!support::canMount())
        GTEST_SKIP() << "no private mounts here";
    withTools([] {
        Arguments arguments = {"a", "", "b c"};
        const Seen seen = see([&arguments] { return util_exec_args("tool", arguments.get()); });
        EXPECT_EQ(seen.result, 3);
        EXPECT_EQ(seen.out, "/usr/local/maru/admin/sbin/tool execution failed:\n"
                            "</usr/local/maru/admin/sbin/tool><a><><b c>\n");
        EXPECT_EQ(seen.err, seen.out);
        Arguments none = {};
        EXPECT_EQ(see([&none] { return util_exec_args("tool", none.get()); }).out,
                  "/usr/local/maru/admin/sbin/tool execution failed:\n"
                  "</usr/local/maru/admin/sbin/tool>\n");
    });
}

TEST_F(UtilExecTest, ArgsTakesAnyNumber)
{
    if (!support::canMount())
        GTEST_SKIP() << "no private mounts here";
    withTools([] {
        Arguments arguments(std::vector<std::string>(250, "x"));
        const Seen seen = see([&arguments] { return util_exec_args("tool", arguments.get()); });
        std::string expected = "/usr/local/maru/admin/sbin/tool execution failed:\n"
                               "</usr/local/maru/admin/sbin/tool>";
        for (int i = 0; i < 250; ++i)
            expected += "<x>";
        EXPECT_EQ(seen.out, expected + "\n");
    });
}

TEST_F(UtilExecTest, LibexecRunsFromItsOwnDirectory)
{
    if (!support::canMount())
        GTEST_SKIP() << "no private mounts here";
    withTools([] {
        const Seen seen = see([] { return util_libexec("tool", "a", "b c", end); });
        EXPECT_EQ(seen.result, 3);
        EXPECT_EQ(seen.out, "/usr/lib64/zorvo-9.0/tool execution failed:\n"
                            "</usr/lib64/zorvo-9.0/tool><a><b c>\n");
        EXPECT_EQ(seen.err, seen.out);
    });
}

TEST_F(UtilExecTest, ListsAreCutAfterAHundred)
{
    if (!support::canMount())
        GTEST_SKIP() << "no private mounts here";
    withTools([] {
        std::string hundred;
        for (int i = 0; i < 100; ++i)
            hundred += "<" + std::to_string(i / 10) + std::to_string(i % 10) + ">";
        EXPECT_EQ(see([] { return util_exec("tool", HUNDRED, "more", end); }).out,
                  "/usr/local/maru/admin/sbin/tool execution failed:\n"
                  "</usr/local/maru/admin/sbin/tool>" +
                      hundred + "\n");
        EXPECT_EQ(see([] { return util_libexec("tool", HUNDRED, "more", end); }).out,
                  "/usr/lib64/zorvo-9.0/tool execution failed:\n</usr/lib64/zorvo-9.0/tool>" + hundred +
                      "\n");
    });
}

TEST_F(UtilExecTest, MissingUtilityIsReported)
{
    const Seen seen = see([] { return util_exec("no-such-utility", end); });
    EXPECT_EQ(seen.result, 255);
    EXPECT_EQ(seen.out,
              "/usr/local/maru/admin/sbin/no-such-utility execution failed:\n"
              "fork_execv: execv(\"/usr/local/maru/admin/sbin/no-such-utility\") failed: No such file or "
              "directory\n");
    const Seen lib = see([] { return util_libexec("no-such-utility", end); });
    EXPECT_EQ(lib.result, 255);
    EXPECT_EQ(lib.out, "/usr/lib64/zorvo-9.0/no-such-utility execution failed:\n"
                       "fork_execv: execv(\"/usr/lib64/zorvo-9.0/no-such-utility\") failed: No such file or "
                       "directory\n");
}

TEST_F(UtilExecTest, NameWithASlashIsRefusedAndNothingRun)
{
    const ScratchDir scratch;
    writeTool(scratch.file("tool"));
    support::writeFile(scratch.file("tool"), "#!/bin/sh\necho > " + scratch.file("ran") + "\n");
    const std::string climbing = "../../../../.." + scratch.file("tool");
    Arguments none = {};
    for (const std::string& name :
         {climbing, std::string("/bin/true"), std::string("a/b"), std::string("tool/"), std::string("/")}) {
        SCOPED_TRACE(name);
        const std::string text =
            "Utility name '" + name + "' is invalid. Use only utility name without path.\n";
        const FailingCall fork(Call::fork, 1, EAGAIN); // Not even tried.
        for (const auto& call : std::vector<std::function<int()>>{
                 [&name] { return util_exec(name.c_str(), end); },
                 [&name, &none] { return util_exec_args(name.c_str(), none.get()); },
                 [&name] { return util_libexec(name.c_str(), end); }}) {
            const Seen seen = see(call);
            EXPECT_EQ(seen.result, -1);
            EXPECT_EQ(seen.out, text);
            EXPECT_EQ(seen.err, text);
        }
        EXPECT_FALSE(fork.happened());
    }
    EXPECT_EQ(scratch.names(), std::set<std::string>{"tool"});
}

// ---- popen_exec, popen_exec_getoutput and popen_exec_with_input

TEST_F(PopenExecTest, SuccessIsSilentAndOutputIgnored)
{
    const Seen seen = see([] { return popen_exec("echo output"); });
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.out, "");
    EXPECT_EQ(seen.err, "");
}

TEST_F(PopenExecTest, StderrIsInherited)
{
    const Seen seen = see([] { return popen_exec("echo error >&2"); });
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.out, "");
    EXPECT_EQ(seen.err, "error\n");
}

TEST_F(PopenExecTest, FailureIsReportedWithItsCode)
{
    const Seen seen = see([] { return popen_exec("exit 3"); });
    EXPECT_EQ(seen.result, 3);
    EXPECT_EQ(seen.out, "popen_exec: command failed code: 3 , exit 3\n");
    EXPECT_EQ(seen.err, seen.out);
}

TEST_F(PopenExecTest, DeathByASignalIsLoggedAndGivesMinusOne)
{
    const ScratchDir scratch;
    const std::string command = "echo $$ > " + scratch.file("pid") + "; kill -KILL $$";
    const Seen seen = see([&command] { return popen_exec(command.c_str()); });
    const std::string pid = std::to_string(std::stoi(support::readFile(scratch.file("pid"))));
    EXPECT_EQ(seen.result, -1);
    EXPECT_EQ(seen.out, "waitpid(" + pid + ")=" + pid + ": process '" + command +
                            "' killed by signal 9\npopen_exec: command failed code: -1 , " + command + "\n");
    EXPECT_EQ(seen.err, seen.out);
}

TEST_F(PopenExecTest, MuchIgnoredOutputDoesNotBlock)
{
    const Seen seen = see([] { return popen_exec("head -c 1000000 /dev/zero; exit 4"); });
    EXPECT_EQ(seen.result, 4);
}

TEST_F(PopenExecTest, OutputIsGiven)
{
    char* out = reinterpret_cast<char*>(1);
    const Seen seen = see([&out] { return popen_exec_getoutput("echo output; echo error >&2", &out); });
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(taken(out), "output\n");
    EXPECT_EQ(seen.out, "");
    EXPECT_EQ(seen.err, "error\n");
}

TEST_F(PopenExecTest, NoOutputGivesNull)
{
    char* out = reinterpret_cast<char*>(1);
    EXPECT_EQ(popen_exec_getoutput("exit 0", &out), 0);
    EXPECT_EQ(taken(out), "(null)");
}

TEST_F(PopenExecTest, OutputOfAFailureIsGivenToo)
{
    char* out = nullptr;
    const Seen seen = see([&out] { return popen_exec_getoutput("echo output; exit 3", &out); });
    EXPECT_EQ(seen.result, 3);
    EXPECT_EQ(taken(out), "output\n");
    EXPECT_EQ(seen.out, "popen_exec: command failed code: 3 , echo output; exit 3\n");
    EXPECT_EQ(seen.err, seen.out);
}

TEST_F(PopenExecTest, MuchOutputIsWhole)
{
    char* out = nullptr;
    EXPECT_EQ(popen_exec_getoutput("head -c 10485760 /dev/zero | tr '\\0' o", &out), 0);
    EXPECT_TRUE(taken(out) == std::string(10U * 1024U * 1024U, 'o'));
}

TEST_F(PopenExecTest, InputIsWritten)
{
    const ScratchDir scratch;
    const std::string input("some\0input", 10);
    const std::string command = "cat > " + scratch.file("got");
    const Seen seen = see([&] { return popen_exec_with_input(command.c_str(), input.data(), input.size()); });
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.out, "");
    EXPECT_EQ(seen.err, "");
    EXPECT_EQ(support::readFile(scratch.file("got")), input);
}

TEST_F(PopenExecTest, MuchInputIsWhole)
{
    const ScratchDir scratch;
    const std::string input(10U * 1024U * 1024U, 'i');
    const std::string command = "cat > " + scratch.file("got");
    EXPECT_EQ(popen_exec_with_input(command.c_str(), input.data(), input.size()), 0);
    EXPECT_TRUE(support::readFile(scratch.file("got")) == input);
}

TEST_F(PopenExecTest, NoInputIsEndOfFile)
{
    const Seen seen = see([] { return popen_exec_with_input("[ -z \"$(cat)\" ]", "", 0); });
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.err, "");
}

TEST_F(PopenExecTest, FailureWithInputIsReported)
{
    const Seen seen = see([] { return popen_exec_with_input("cat >&2; exit 3", "input\n", 6); });
    EXPECT_EQ(seen.result, 3);
    EXPECT_EQ(seen.out, "popen_exec: command failed code: 3 , cat >&2; exit 3\n");
    EXPECT_EQ(seen.err, "input\n" + seen.out);
}

// More than a pipe holds, and nobody reads it. SIGPIPE must not end this program, whatever its disposition
// was.
TEST_F(PopenExecTest, InputThatIsNotReadIsReported)
{
    const std::string input(1000000, 'i');
    for (const bool ignored : {true, false}) {
        const ChildResult result = runInChild([&input, ignored] {
            ::signal(SIGPIPE, ignored ? SIG_IGN : SIG_DFL);
            errno = 0;
            const int returned = popen_exec_with_input("exec <&-; exit 0", input.data(), input.size());
            return returned == -1 ? 0 : 1;
        });
        EXPECT_EQ(result.status, 0);
        EXPECT_THAT(result.err,
                    testing::MatchesRegex("Failed to execute command with input: only [0-9]+ of 1000000 "
                                          "bytes were written\\.(\nSystem error 32: Broken pipe)?\n"));
        EXPECT_EQ(result.out, result.err);
    }
}

TEST_F(PopenExecTest, CommandWithInputStartsWithTheCallersSigpipe)
{
    for (const bool ignored : {true, false})
        inOwnProcess([ignored] {
            const ScratchDir scratch;
            ::signal(SIGPIPE, ignored ? SIG_IGN : SIG_DFL);
            const Signals before = ownSignals();
            const std::string command = "cat /proc/self/status > " + scratch.file("status");
            EXPECT_EQ(popen_exec_with_input(command.c_str(), "", 0), 0);
            EXPECT_EQ(signalsIn(support::readFile(scratch.file("status"))), before);
            EXPECT_EQ(ownSignals(), before);
        });
}

TEST_F(PopenExecTest, CommandThatCannotBeStartedIsReported)
{
    const ChildResult result = runInChild([] {
        rlimit none{};
        ::getrlimit(RLIMIT_NOFILE, &none);
        none.rlim_cur = 3;
        ::setrlimit(RLIMIT_NOFILE, &none);
        errno = 0;
        return popen_exec("echo output") == -1 ? 0 : 1;
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.err, testing::StartsWith("popen_exec: failed to execute command: echo output\n"));
    EXPECT_EQ(result.out, result.err);
}

TEST_F(PopenExecTest, InputCanPassThroughWhileOutputIsInherited)
{
    const Seen seen = see([] { return popen_exec_with_input("cat", "input\n", 6); });
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.out, "input\n");
}
