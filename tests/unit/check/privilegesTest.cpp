// Root is given up for good.
#include "check/privileges.h"

#include "support/Child.h"

#include <linux/securebits.h>
#include <sys/prctl.h>

#include <gtest/gtest.h>

#include <fstream>
#include <grp.h>
#include <pwd.h>

namespace zorvo::check {

namespace {

/// The lines of /proc/self/status that tell who this process is.
void printIdentity()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        for (const char* const wanted :
             {"Uid:", "Gid:", "Groups:", "CapPrm:", "CapEff:", "CapAmb:", "NoNewPrivs:"}) {
            if (line.rfind(wanted, 0) == 0)
                std::cout << line << "\n";
        }
    }
}

const std::string nobodysIdentity = "Uid:\t65534\t65534\t65534\t65534\n"
                                    "Gid:\t65534\t65534\t65534\t65534\n"
                                    "Groups:\t \n"
                                    "CapPrm:\t0000000000000000\n"
                                    "CapEff:\t0000000000000000\n"
                                    "CapAmb:\t0000000000000000\n"
                                    "NoNewPrivs:\t1\n";

} // namespace

TEST(GiveUpPrivilegesTest, RootBecomesNobodyWithoutAWayBack)
{
    const support::ChildResult child = support::runInChild([] {
        const gid_t more[] = {0, 4};
        if (::setgroups(2, more) != 0)
            return 1;
        giveUpPrivileges();
        printIdentity();
        return ::setresuid(-1U, 0, -1U) == -1 && ::setresgid(-1U, 0, -1U) == -1 && ::setgroups(2, more) == -1
                   ? 0
                   : 2;
    });
    EXPECT_EQ(nobodysIdentity, child.out);
    EXPECT_EQ("", child.err);
    EXPECT_TRUE(child.exitedWith(0));
}

TEST(GiveUpPrivilegesTest, RootThatIsOnlySavedIsGivenUpAsWell)
{
    const support::ChildResult child = support::runInChild([] {
        if (::setgroups(0, nullptr) != 0 || ::setresuid(1, 1, 0) != 0)
            return 1;
        giveUpPrivileges();
        return 0;
    });
    EXPECT_EQ("escaped: cannot give up privileges: setgroups: Operation not permitted\n", child.err);
}

TEST(GiveUpPrivilegesTest, OtherUserCanNoLongerGainPrivileges)
{
    const support::ChildResult child = support::runInChild([] {
        if (::setgroups(0, nullptr) != 0 || ::setresgid(1, 1, 1) != 0 || ::setresuid(1, 1, 1) != 0)
            return 1;
        giveUpPrivileges();
        printIdentity();
        return 0;
    });
    EXPECT_EQ("Uid:\t1\t1\t1\t1\nGid:\t1\t1\t1\t1\nGroups:\t \nCapPrm:\t0000000000000000\n"
              "CapEff:\t0000000000000000\nCapAmb:\t0000000000000000\nNoNewPrivs:\t1\n",
              child.out);
    EXPECT_TRUE(child.exitedWith(0));
}

// A service manager may start a process so that it keeps its capabilities when its user ids change.
TEST(GiveUpPrivilegesTest, ProcessThatCouldBecomeRootAgainIsRefused)
{
    const support::ChildResult child = support::runInChild([] {
        if (::prctl(PR_SET_SECUREBITS, SECBIT_NO_SETUID_FIXUP, 0, 0, 0) != 0)
            return 1;
        giveUpPrivileges();
        return 0;
    });
    EXPECT_EQ("escaped: cannot give up privileges: they can be had again\n", child.err);
    EXPECT_TRUE(child.exitedWith(255));
}

} // namespace zorvo::check
