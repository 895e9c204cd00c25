// bench_postconf: runs the real postconf, then gives main.cf an old time stamp. Postfix's tools wait until
// main.cf has not changed for a while; on both sides of a comparison that wait would hide everything else.
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

int main(int, char* argv[])
{
    pid_t pid = -1;
    if (::posix_spawn(&pid, "/run/sandbox/real-postconf", nullptr, nullptr, argv, environ) != 0)
        return 127;
    int status = 0;
    ::waitpid(pid, &status, 0);
    const struct timespec old[2] = {{1000000000, 0}, {1000000000, 0}};
    ::utimensat(AT_FDCWD, "/etc/postfix/main.cf", old, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 126;
}
