# shellcheck shell=bash
# An address that is not given is removed, although an earlier run set it.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

start_receivers
bind -t explicit-ip -4 127.0.0.2 -6 2001:db8::2
bind -t explicit-ip -4 127.0.0.3
assert_equal "what binds after a run with IPv4 only" "smtp_bind_address = 127.0.0.3" "$(bound)"
assert_mail user@one.example 4 smtp 127.0.0.3 "$default_helo"
bind -t explicit-ip -4 "" -6 2001:db8::3
assert_equal "what binds after a run with IPv6 only" "smtp_bind_address6 = 2001:db8::3" "$(bound)"
assert_mail user@one.example 4 smtp 127.0.0.1 "$default_helo"
if has_ipv6; then assert_mail user@one.example 6 smtp 2001:db8::3 "$default_helo"; fi
