# shellcheck shell=bash
# A domain with an IPv4 address alone sends from it, and never over IPv6.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

start_receivers
bind -t domain-ip < <(request one.example 127.0.0.2 "")
assert_equal "what binds" "
zorvo-127.0.0.2- unix - - n - - smtp -o smtp_bind_address=127.0.0.2 -o smtp_bind_address6= -o smtp_address_preference=ipv4 -o inet_protocols=ipv4
@one.example	zorvo-127.0.0.2-:" "$(bound)"
assert_mail user@one.example 4 zorvo-127.0.0.2- 127.0.0.2 "$default_helo"
assert_mail user@two.example 4 smtp 127.0.0.1 "$default_helo"
