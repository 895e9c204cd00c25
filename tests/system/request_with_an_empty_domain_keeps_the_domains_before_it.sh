# shellcheck shell=bash
# The run stops at the empty name: earlier domains stay bound in the files, later ones are not, and no restart follows.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

bind -t domain-ip < <(request old.example 127.0.0.2 "")
pid=$(master_pid)
run_program -t domain-ip < <(request one.example 127.0.0.3 "" "" 127.0.0.4 "" two.example 127.0.0.5 "")
assert_equal "status" 1 "$status"
assert_true "the message names the reason: $(<"$scratch/stderr")" grep -q '^Fatal error: .*Empty domain name specified' "$scratch/stderr"
assert_equal "records" "@one.example	zorvo-127.0.0.3-:" "$(records)"
assert_equal "services" "zorvo-127.0.0.3-" "$(postconf -M | awk '/^zorvo-/ { print $1 }')"
assert_equal "Postfix's process" "$pid" "$(master_pid)"
