# shellcheck shell=bash
# All mail leaves from the two addresses of an explicit-ip request.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

needs_ipv6
start_receivers
bind --transport-type=explicit-ip --ip4-addr=127.0.0.2 --ip6-addr=2001:db8::2 </dev/null
assert_equal "what binds" "smtp_bind_address = 127.0.0.2
smtp_bind_address6 = 2001:db8::2" "$(bound)"
assert_mail user@one.example 4 smtp 127.0.0.2 "$default_helo"
assert_mail user@one.example 6 smtp 2001:db8::2 "$default_helo"
assert_mail user@two.example 4 smtp 127.0.0.2 "$default_helo"
