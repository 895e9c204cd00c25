# shellcheck shell=bash
# A script that only exits with 0: the configuration is written and the status is 0, although Postfix is down.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

printf '#!/bin/sh\necho "$@" >>%s/calls\n' "$scratch" >"$zorvorc"
bind -t explicit-ip -4 127.0.0.2
assert_equal "calls of the service script" "postfix restart" "$(<"$scratch/calls")"
assert_equal "what binds" "smtp_bind_address = 127.0.0.2" "$(bound)"
assert_true "Postfix is down" test ! -e /var/spool/postfix/pid/master.pid
