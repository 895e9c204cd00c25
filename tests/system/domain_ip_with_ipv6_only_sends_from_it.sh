# shellcheck shell=bash
# A domain with an IPv6 address alone sends from it.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

needs_ipv6
start_receivers
bind -t domain-ip < <(request one.example "" 2001:db8::2)
assert_equal "what binds" "
zorvo--2001-db8--2 unix - - n - - smtp -o smtp_bind_address= -o smtp_bind_address6=2001:db8::2 -o smtp_address_preference=ipv6 -o inet_protocols=ipv6
@one.example	zorvo--2001-db8--2:" "$(bound)"
assert_mail user@one.example 6 zorvo--2001-db8--2 2001:db8::2 "$default_helo"
