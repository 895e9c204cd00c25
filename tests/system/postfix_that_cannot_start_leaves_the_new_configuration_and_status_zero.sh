# shellcheck shell=bash
# With a main.cf that Postfix refuses to start with, the run does its work and reports nothing.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

echo 'queue_directory = /nonexistent/queue' >>"$main_cf"
request one.example 127.0.0.2 "" >"$scratch/request"
touch -d '1 hour ago' "$main_cf"
status=0
"$program" -t domain-ip <"$scratch/request" >"$scratch/stdout" 2>"$scratch/stderr" || status=$?
assert_equal "status, standard output and standard error" "0  " "$status $(<"$scratch/stdout") $(<"$scratch/stderr")"
assert_true "Postfix is down" test ! -e /var/spool/postfix/pid/master.pid
assert_equal "services" "zorvo-127.0.0.2-" "$(awk '/^zorvo-/ { print $1 }' "$master_cf")"
