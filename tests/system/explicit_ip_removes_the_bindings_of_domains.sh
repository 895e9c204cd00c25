# shellcheck shell=bash
# An explicit-ip run removes what a domain run generated, and the other way round.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

start_receivers
bind -t domain-ip < <(request one.example 127.0.0.2 "")
bind -t explicit-ip -4 127.0.0.3
assert_equal "what binds" "smtp_bind_address = 127.0.0.3" "$(bound)"
assert_mail user@one.example 4 smtp 127.0.0.3 "$default_helo"
bind -t domain-ip < <(request one.example 127.0.0.4 "")
assert_equal "main.cf" "" "$(parameter smtp_bind_address)"
assert_mail user@one.example 4 zorvo-127.0.0.4- 127.0.0.4 "$default_helo"
assert_mail user@two.example 4 smtp 127.0.0.1 "$default_helo"
