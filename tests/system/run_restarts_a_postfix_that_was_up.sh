# shellcheck shell=bash
# Postfix is really restarted: another master process runs afterwards.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

"$zorvorc" postfix start
pid=$(master_pid)
bind -t explicit-ip -4 127.0.0.2
assert_true "Postfix is up" postfix_is_up
assert_true "the old master is gone" test ! -e "/proc/$pid"
