# shellcheck shell=bash
# A run on a stopped mail server ends with a running one.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

assert_true "Postfix is down at first" test ! -e /var/spool/postfix/pid/master.pid
bind -t explicit-ip -4 127.0.0.2
assert_true "Postfix is up" postfix_is_up
