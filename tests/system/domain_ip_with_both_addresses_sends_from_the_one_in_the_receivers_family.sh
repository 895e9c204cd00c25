# shellcheck shell=bash
# With both addresses, the receiver's family decides.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

needs_ipv6
start_receivers
bind -t domain-ip < <(request one.example 127.0.0.2 2001:db8::2)
assert_equal "what binds" "
zorvo-127.0.0.2-2001-db8--2 unix - - n - - smtp -o smtp_bind_address=127.0.0.2 -o smtp_bind_address6=2001:db8::2 -o smtp_address_preference=ipv4
@one.example	zorvo-127.0.0.2-2001-db8--2:" "$(bound)"
assert_mail user@one.example 4 zorvo-127.0.0.2-2001-db8--2 127.0.0.2 "$default_helo"
assert_mail user@one.example 6 zorvo-127.0.0.2-2001-db8--2 2001:db8::2 "$default_helo"
