# shellcheck shell=bash
# An empty list is a valid request: no domain is bound afterwards.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

start_receivers
bind -t domain-name < <(request one.example 127.0.0.2 "")
bind -t domain-name < <(request)
assert_equal "what binds" "" "$(bound)"
assert_mail user@one.example 4 smtp 127.0.0.1 "$default_helo"
