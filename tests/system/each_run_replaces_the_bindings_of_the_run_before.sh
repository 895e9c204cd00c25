# shellcheck shell=bash
# Nothing of an earlier request remains after a later one, of either type.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

start_receivers
bind -t domain-ip < <(request one.example 127.0.0.2 "" two.example 127.0.0.3 "")
bind -t domain-name < <(request two.example 127.0.0.4 "" three.example 127.0.0.5 "")
assert_equal "services" "zorvo-three.example-127.0.0.5-/unix
zorvo-two.example-127.0.0.4-/unix" "$(postconf -M | awk '/^zorvo-/ { print $1 "/" $2 }' | sort)"
assert_equal "records" "@three.example	zorvo-three.example-127.0.0.5-:
@two.example	zorvo-two.example-127.0.0.4-:" "$(records)"
assert_mail user@one.example 4 smtp 127.0.0.1 "$default_helo"
assert_mail user@two.example 4 zorvo-two.example-127.0.0.4- 127.0.0.4 two.example
assert_mail user@three.example 4 zorvo-three.example-127.0.0.5- 127.0.0.5 three.example
