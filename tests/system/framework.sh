# shellcheck shell=bash
# Sourced by every system test: a real Postfix in the sandbox, the programs, and what a test asserts of them.
#
# A test is a bash script run as scripts/sandbox bash TEST.sh PROGRAM CHECK_PROGRAM. It ends with 0 (passed), 1 (failed:
# the first assertion that does not hold ends it and prints everything that is known) or 77 (skipped, with the reason).
#
# After every run of the program the framework itself asserts what always holds: no file is left beside those that the
# program maintains, master.cf is one that Postfix can read, with its owner and mode.
set -euo pipefail

framework_folder=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=../../scripts/sandbox.d/mail.sh source-path=SCRIPTDIR
. "$framework_folder/../../scripts/sandbox.d/mail.sh"

# What a developer has in the environment must not matter.
unset ZORVO_LOG_LEVEL ZORVO_LOG_TRACE_ID MAIL_CONFIG MAIL_VERBOSE MAIL_DEBUG
export LC_ALL=C PATH=/usr/sbin:/usr/bin:/sbin:/bin
umask 022

[[ -e /run/lock/files ]] || {
    echo "this test runs in scripts/sandbox only" >&2
    exit 1
}

# shellcheck disable=SC2034 # some are for the tests
{
    scratch=/run/sandbox
    stock=/usr/share/postfix/master.cf.dist
    master_cf=/etc/postfix/master.cf
    main_cf=/etc/postfix/main.cf
    paths=${BASH_SOURCE[0]%/*}/../support/FixedPaths.h
    table=$(sed -n 's/.* tableType = "\(.*\)";/\1/p' "$paths")$(sed -n 's/.* tableSourcePath\[\] = "\(.*\)";/\1/p' "$paths")
    database=${table#*:}.db # the file that postmap(1) makes of a "hash:" table
    zorvorc=/usr/local/maru/admin/sbin/zorvorc
    default_helo=sandbox.example
}
program=${1:-}
check_program=${2:-}

# dump: all that helps to understand a failure.
dump() {
    {
        echo "--- standard output of the last run"
        cat "$scratch/stdout" 2>/dev/null || :
        echo "--- standard error of the last run"
        cat "$scratch/stderr" 2>/dev/null || :
        echo "--- changes of master.cf"
        diff "$stock" "$master_cf" || :
        echo "--- main.cf"
        cat "$main_cf"
        echo "--- table"
        postmap -s "$table" || :
        echo "--- received"
        grep -h '^X-' "$mail_folder"/received[46] || :
        echo "--- log"
        tail -n 40 /run/postfix.log || :
        echo "--- processes"
        ps -e -o pid,ppid,args
    } >&2 2>&1
}

# fail TEXT: ends the test.
fail() {
    echo "FAILED at ${BASH_SOURCE[-1]##*/}:${BASH_LINENO[-2]}: $*" >&2
    dump
    trap - ERR
    exit 1
}

# skip REASON: ends the test as not run.
skip() {
    echo "skipped: $*"
    exit 77
}

on_error() {
    echo "FAILED at ${BASH_SOURCE[1]##*/}:$1: a command ended with status $2" >&2
    [[ $BASH_SUBSHELL -ne 0 ]] || dump
    trap - ERR
    exit 1 # not $2, which might be that of a skip
}
set -o errtrace
trap 'on_error $LINENO $?' ERR

# needs_ipv6: skips the test where there are no IPv6 addresses.
needs_ipv6() { has_ipv6 || skip "$(why_no_ipv6)"; }

# assert_equal WHAT EXPECTED ACTUAL
assert_equal() {
    [[ $2 = "$3" ]] || fail "$1"$'\n'"expected: $2"$'\n'"     got: $3"$'\n'"$(diff <(echo "$2") <(echo "$3") || :)"
}

# assert_same_file WHAT EXPECTED ACTUAL: both are files.
assert_same_file() {
    local difference
    difference=$(diff -u "$2" "$3" 2>&1) || fail "$1"$'\n'"$difference"
    # diff shows a missing last line feed, but no difference of other bytes that look alike.
    cmp -s "$2" "$3" || fail "$1: different bytes"
}

# assert_true WHAT COMMAND...
assert_true() {
    local what=$1
    shift
    "$@" || fail "$what"
}

# run_program ARGUMENT...: runs the program with the caller's standard input; its status is in $status, its output in
# $scratch/stdout and stderr. main.cf is made old before, so that no Postfix tool waits for that.
run_program() {
    touch -d '1 hour ago' "$main_cf"
    status=0
    "$program" "$@" >"$scratch/stdout" 2>"$scratch/stderr" || status=$?
    assert_standing_invariants
}

# bind ARGUMENT...: as run_program, but the program must succeed without output.
bind() {
    run_program "$@"
    assert_equal "status of a run that should succeed" 0 "$status"
    assert_equal "standard output" "" "$(<"$scratch/stdout")"
    assert_equal "standard error" "" "$(<"$scratch/stderr")"
}

# check ARGUMENT...: runs zorvo-smtp-check with the caller's standard input; its status is in $status, its output in
# $scratch/stdout and stderr. It must not change anything.
check() {
    local before
    before=$(state)
    status=0
    "$check_program" "$@" >"$scratch/stdout" 2>"$scratch/stderr" || status=$?
    assert_equal "files, locks and queue manager after a check" "$before" "$(state)"
}

# assert_checked STATUS REPORT ARGUMENT...: runs a check and asserts its whole output.
assert_checked() {
    local expected_status=$1 report=$2
    shift 2
    check "$@"
    assert_equal "standard error of the check" "" "$(<"$scratch/stderr")"
    assert_equal "report" "$report" "$(<"$scratch/stdout")"
    assert_equal "status of the check" "$expected_status" "$status"
}

# shellcheck disable=SC2034 # the end of each report, because of Postfix's default
enforce_off='warning: enforce-off
  If an address is taken off the host, Postfix logs a warning and sends from the default one.
  Set "smtp_bind_address_enforce = yes" in main.cf if such mail should wait in the queue instead.'

# reload_postfix: returns when it has read its files again.
reload_postfix() {
    local before
    before=$(queue_manager)
    touch -d '1 hour ago' "$main_cf"
    postfix reload 2>/dev/null
    poll has_other_queue_manager "$before" || fail "Postfix did not reload"
}
queue_manager() { pgrep -P "$(master_pid)" -x qmgr; }
has_other_queue_manager() {
    local now
    now=$(queue_manager) && ! grep -q -x "$1" <<<"$now"
}

# request DOMAIN IP4 IP6 ...: prints the JSON request of these triples.
# shellcheck disable=SC2120 # none is a request as well
request() {
    local separator=
    echo '{"domains": ['
    while [[ $# -gt 0 ]]; do
        printf '%s  {"domain": "%s", "ip4_addr": "%s", "ip6_addr": "%s"}' "$separator" "$1" "$2" "$3"
        separator=$',\n'
        shift 3
    done
    echo ']}'
}
# The requests of most checks.
one_domain() { request one.example 192.0.2.2 ""; }
two_domains() { request one.example 192.0.2.2 "" two.example 192.0.2.3 ""; }

configuration_files() { find /etc/postfix /var/spool/postfix/zorvo | sort; }
files_at_start=$(configuration_files)

assert_standing_invariants() {
    local expected
    assert_equal "owner and mode of master.cf" "root:root 644" "$(stat -c '%U:%G %a' "$master_cf")"
    expected=$(printf '%s\n' "$files_at_start" "$database" | sort -u)
    if [[ ! -e $database ]]; then
        expected=$files_at_start # a run that was refused before anything was changed
    fi
    assert_equal "files" "$expected" "$(configuration_files)"
    assert_equal "master.cf according to postconf" "" "$(postconf -M 2>&1 >/dev/null || :)"
}

# generated: prints the lines of master.cf that the stock file does not have.
generated() { { diff "$stock" "$master_cf" || :; } | sed -n 's/^> //p'; }

# records: prints the table's records, sorted.
records() { postmap -s "$table" | sort; }

# parameter NAME: prints "NAME = VALUE" if main.cf sets it.
parameter() { postconf -n "$1" 2>/dev/null | grep "^$1 = " || :; }

# bound: prints what binds, in all three places.
bound() {
    parameter smtp_bind_address
    parameter smtp_bind_address6
    generated
    records
}

# fingerprint: prints content, identity, mode and time of everything that the program could change. (main.cf's time is
# the framework's; postconf replaces the file, so its inode tells.)
fingerprint() {
    sha256sum "$master_cf" "$main_cf" /var/spool/postfix/zorvo/*
    stat -c '%n %i %a' "$main_cf"
    stat -c '%n %i %a %y' "$master_cf" /var/spool/postfix/zorvo /var/spool/postfix/zorvo/*
}

# state: prints what a check could change: files and locks as the file system knows them, and the running Postfix.
state() {
    find /etc/postfix /var/spool/postfix/zorvo /run/lock/files -printf '%p %i %m %s %T@\n' | sort
    if [[ -e /var/spool/postfix/pid/master.pid ]]; then queue_manager || :; fi
}

master_pid() { tr -d ' ' </var/spool/postfix/pid/master.pid; }
postfix_is_up() { [[ -n $(pgrep -P "$(master_pid)" -x qmgr) ]]; }

# assert_mail SENDER 4|6 SERVICE SOURCE HELO: sends a mail and asserts how it arrived.
mail_count=0
assert_mail() {
    local name
    mail_count=$((mail_count + 1))
    name=$(recipient "mail$mail_count" "$2")
    send_mail "$1" "$name"
    wait_received "$name" || fail "no mail from $1 to $name within $mail_deadline seconds"
    assert_equal "sender, service, source address and HELO name" "<$1> $3 $4 $5" \
        "$(received_header "$name" X-Mail-Args) $(seen_service "$name") $(seen_source "$name") $(seen_helo "$name")"
}

# assert_deferred SENDER 4|6 REASON: sends a mail and asserts that Postfix keeps it, for a reason that begins like this,
# and that no receiver saw it.
assert_deferred() {
    local name
    mail_count=$((mail_count + 1))
    name=$(recipient "mail$mail_count" "$2")
    send_mail "$1" "$name"
    poll deferral_is_logged "$name" || fail "no deferred mail from $1 to $name within $mail_deadline seconds"
    assert_equal "reason of the deferral" "$3" "$(deferral "$name" | head -c ${#3})"
    assert_equal "what a receiver saw of it" "" "$(received_header "$name" X-Mail-Args || :)"
}
deferral() { grep -F "to=<$1>," /run/postfix.log | sed -n 's/.*status=deferred (\(.*\))$/\1/p' | head -n 1; }
deferral_is_logged() { [[ -n $(deferral "$1") ]]; }
