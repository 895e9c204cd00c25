# shellcheck shell=bash
# The other tests rely on it: the sandbox's service script does what it says, with the right exit codes.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

# control SERVICE ACTION: prints the exit status, after the whole output has been read to its end.
control() {
    local status=0
    # cat would not come to an end if a daemon kept the pipe open.
    "$zorvorc" "$@" 2>&1 | cat >"$scratch/stdout" || status=$?
    echo "$status"
}

assert_equal "status of a stopped Postfix" 3 "$(control postfix status)"
assert_equal "stopping a stopped one" 0 "$(control postfix stop)"
assert_equal "reloading a stopped one" 1 "$(control postfix reload)"
assert_equal "try-restart of a stopped one" 0 "$(control postfix try-restart)"
assert_equal "status after try-restart" 3 "$(control postfix status)"
assert_equal "start" 0 "$(control postfix start)"
assert_true "Postfix is up" poll postfix_is_up
first=$(master_pid)
assert_equal "status of a running Postfix" 0 "$(control postfix status)"
assert_equal "starting a running one" 0 "$(control postfix start)"
assert_equal "reload" 0 "$(control postfix reload)"
assert_equal "process after start and reload" "$first" "$(master_pid)"
assert_equal "restart" 0 "$(control postfix restart)"
assert_true "Postfix is up after restart" poll postfix_is_up
assert_true "restart ended the old process" test ! -e "/proc/$first"
second=$(master_pid)
assert_equal "try-restart" 0 "$(control postfix try-restart)"
assert_true "try-restart ended the old process" test ! -e "/proc/$second"
third=$(master_pid)
assert_equal "stop" 0 "$(control postfix stop)"
assert_true "stop ended the process" test ! -e "/proc/$third"
echo 'this is not a service' >>"$master_cf"
assert_equal "starting with a master.cf that cannot be read" 1 "$(control postfix start)"

assert_equal "status of a stopped qfilter" 3 "$(control qfilter status)"
assert_equal "start of qfilter" 0 "$(control qfilter start)"
assert_equal "status of a running qfilter" 0 "$(control qfilter status)"
assert_equal "restart of qfilter" 0 "$(control qfilter restart)"
assert_equal "stop of qfilter" 0 "$(control qfilter stop)"
assert_equal "status of qfilter after stop" 3 "$(control qfilter status)"

assert_equal "unknown action" 2 "$(control postfix dance)"
assert_equal "unknown service" 2 "$(control dovecot start)"
