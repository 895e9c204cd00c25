# shellcheck shell=bash
# Sourced by the tests that look at the scripts, and at the machine, from outside the sandbox.
#
# usage of a test: bash TEST.sh PROGRAM; it ends with 0 (passed), 1 (failed) or 77 (skipped, with the reason).
set -euo pipefail
export LC_ALL=C

project=$(cd "$(dirname "${BASH_SOURCE[0]}")/../../.." && pwd)
cd "$project"
# shellcheck disable=SC2034 # for the tests
program=${1:-}
# shellcheck disable=SC2034
check_program=${program%/*}/zorvo-smtp-check
sandbox=$project/scripts/sandbox

[[ $(id -u) -eq 0 ]] || {
    echo "FAILED: must be run as root"
    exit 1
}

# A folder of the test's own, removed at its end.
own=$(mktemp -d /tmp/zorvo-test.XXXXXX)
trap 'rm -rf "$own"' EXIT

fail() {
    echo "FAILED at ${BASH_SOURCE[-1]##*/}:${BASH_LINENO[-2]}: $*"
    exit 1
}
trap 'echo "FAILED at ${BASH_SOURCE[0]##*/}:$LINENO: a command ended with status $?"; exit 1' ERR

skip() {
    echo "skipped: $*"
    exit 77
}

# assert_equal WHAT EXPECTED ACTUAL
assert_equal() {
    [[ $2 = "$3" ]] || fail "$1"$'\n'"expected: $2"$'\n'"     got: $3"$'\n'"$(diff <(echo "$2") <(echo "$3") || :)"
}

# run COMMAND...: leaves its status in $status, its output in $stdout and $stderr.
run() {
    # shellcheck disable=SC2034 # for the tests
    status=0
    # shellcheck disable=SC2034
    "$@" >"$own/stdout" 2>"$own/stderr" || status=$?
    # shellcheck disable=SC2034
    stdout=$(<"$own/stdout")
    # shellcheck disable=SC2034
    stderr=$(<"$own/stderr")
}

# poll COMMAND...: runs it until it succeeds; fails after 20 seconds.
poll() {
    local end=$((SECONDS + 20))
    until "$@"; do
        ((SECONDS < end)) || return 1
        sleep 0.05
    done
}

# machine_state: prints everything on this machine that the sandbox must leave alone, except processes.
machine_state() {
    echo "mounts"
    cut -d ' ' -f 4- /proc/self/mountinfo
    echo "addresses and links"
    ip -o addr | sed 's/valid_lft.*//'
    ip -o link | sed 's/state .*//'
    echo "host name"
    uname -n
    echo "files"
    # Kind, mode, owner, size (of a folder it is the file system's business), time of last change, name, target.
    find /etc/postfix /var/spool/postfix /var/lib/postfix /run/lock /usr/local -xdev \
        \( -type d -printf '%y %m %u:%g 0 %C@ %p\n' -o -printf '%y %m %u:%g %s %C@ %p %l\n' \) 2>/dev/null | sort -k 6
    find /usr/sbin /dev -maxdepth 1 -printf '%y %m %u:%g %p %l\n' | sort -k 4
    find /run -maxdepth 1 -printf '%y %m %u:%g %p %l\n' | sort -k 4
    echo "configuration"
    find /etc/postfix -type f -exec sha256sum {} + | sort -k 2
}

# needs_throw_away: skips the test where no throw-away container can be made.
throw_away=$project/tests/system/throw-away
needs_throw_away() {
    local reason
    reason=$("$throw_away" true 2>&1) || skip "no throw-away container can be made here: $reason"
}

sandbox_has_ipv6() { "$sandbox" test ! -e /run/sandbox.no-ipv6; }
