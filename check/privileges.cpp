#include "check/privileges.h"

#include "common/SystemError.h"

#include <grp.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>

namespace zorvo::check {

namespace {

void require(bool succeeded, const char* step)
{
    if (!succeeded)
        throwSystemError(std::string("cannot give up privileges: ") + step, errno);
}

bool isRoot()
{
    uid_t real = 0;
    uid_t effective = 0;
    uid_t saved = 0;
    require(::getresuid(&real, &effective, &saved) == 0, "getresuid");
    return real == 0 || effective == 0 || saved == 0;
}

/// A process that was started without the usual treatment of user ids (capabilities(7),
/// SECBIT_NO_SETUID_FIXUP) keeps its capabilities, and with them a way back.
void requireNoWayBack()
{
    if (::setresuid(0, 0, 0) == 0 || ::setresgid(0, 0, 0) == 0 || isRoot())
        throw std::runtime_error("cannot give up privileges: they can be had again");
}

} // namespace

void giveUpPrivileges()
{
    if (isRoot()) {
        const passwd* const nobody = ::getpwnam("nobody");
        if (nobody == nullptr)
            throw std::runtime_error("cannot give up privileges: there is no user \"nobody\"");
        const uid_t user = nobody->pw_uid;
        const gid_t group = nobody->pw_gid;
        require(::setgroups(0, nullptr) == 0, "setgroups");
        require(::setresgid(group, group, group) == 0, "setresgid");
        require(::setresuid(user, user, user) == 0, "setresuid");
        requireNoWayBack();
    }
    require(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0, "prctl");
}

} // namespace zorvo::check
