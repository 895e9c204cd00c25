# shellcheck shell=bash
# Any type but the three removes all bindings; mail leaves as if there had never been one.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

start_receivers
bind -t domain-ip < <(request one.example 127.0.0.2 "")
assert_mail user@one.example 4 zorvo-127.0.0.2- 127.0.0.2 "$default_helo"
# A type in the wrong case is not recognised either.
bind -t Domain-IP < <(request one.example 127.0.0.2 "")
assert_equal "what binds" "" "$(bound)"
assert_same_file "master.cf is the stock one again" "$stock" "$master_cf"
assert_mail user@one.example 4 smtp 127.0.0.1 "$default_helo"
