// DirOwner: a directory stream is closed with its owner.
#include "process/DirOwner.h"

#include "support/OpenFds.h"
#include "support/ScratchDir.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <set>
#include <string>

using support::openFds;
using support::ScratchDir;
using support::writeFile;
using zorvo::process::DirOwner;

TEST(DirOwnerTest, ReadsEveryNameAndClosesWithItsScope)
{
    const ScratchDir scratch;
    writeFile(scratch.file("a"), "");
    writeFile(scratch.file("b"), "");
    const auto before = openFds();
    {
        DirOwner directory(scratch.path().c_str());
        ASSERT_TRUE(directory.isOpen());
        EXPECT_EQ(openFds().at(directory.fd()), scratch.path());
        EXPECT_EQ(::fcntl(directory.fd(), F_GETFD), FD_CLOEXEC);
        std::set<std::string> names;
        while (const dirent* const entry = directory.next())
            names.insert(entry->d_name);
        EXPECT_EQ(errno, 0);
        EXPECT_EQ(names, (std::set<std::string>{".", "..", "a", "b"}));
        errno = EDOM;
    }
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(openFds(), before);
}

TEST(DirOwnerTest, MissingDirectoryIsNotOpen)
{
    errno = 0;
    const DirOwner directory("/no/such/directory");
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(directory.isOpen());
}
