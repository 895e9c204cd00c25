# shellcheck shell=bash
# The demo's table is complete and right.
# shellcheck source=outside.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/outside.sh"

sandbox_has_ipv6 || skip "no IPv6 address can be had"
before=$(machine_state)
run "$sandbox" scripts/demo --inside "$program" "$check_program"
assert_equal "status and error output" "0 " "$status $stderr"
assert_equal "rows" "\
user@anything.example smtp 127.0.0.6 sandbox.example ok
user@anything.example smtp 2001:db8::6 sandbox.example ok
user@four-only.example zorvo-127.0.0.2- 127.0.0.2 sandbox.example ok
user@six-only.example zorvo--2001-db8--2 2001:db8::2 sandbox.example ok
user@both.example zorvo-127.0.0.3-2001-db8--3 127.0.0.3 sandbox.example ok
user@both.example zorvo-127.0.0.3-2001-db8--3 2001:db8::3 sandbox.example ok
user@Shared.Example zorvo-127.0.0.3-2001-db8--3 127.0.0.3 sandbox.example ok
user@Shared.Example zorvo-127.0.0.3-2001-db8--3 2001:db8::3 sandbox.example ok
user@not-requested.example smtp 127.0.0.1 sandbox.example ok
user@four-only.example zorvo-four-only.example-127.0.0.4- 127.0.0.4 four-only.example ok
user@six-only.example zorvo-six-only.example--2001-db8--4 2001:db8::4 six-only.example ok
user@both.example zorvo-both.example-127.0.0.5-2001-db8--5 127.0.0.5 both.example ok
user@both.example zorvo-both.example-127.0.0.5-2001-db8--5 2001:db8::5 both.example ok
user@Same-Addresses.Example zorvo-same-addresses.example-127.0.0.5-2001-db8--5 127.0.0.5 same-addresses.example ok
user@Same-Addresses.Example zorvo-same-addresses.example-127.0.0.5-2001-db8--5 2001:db8::5 same-addresses.example ok
user@not-requested.example smtp 127.0.0.1 sandbox.example ok
user@four-only.example smtp 127.0.0.1 sandbox.example ok" "$(awk '/^   user@/ { $1 = $1; print }' "$own/stdout")"
assert_equal "refused requests" "2" "$(grep -c '^     ok$' "$own/stdout")"
assert_equal "checks" "\
zorvo-smtp-check --transport-type=explicit-ip --ip4-addr=127.0.0.6 --ip6-addr=2001:db8::6: ok
zorvo-smtp-check -t domain-ip <examples/domain-ip.json: ok
zorvo-smtp-check -t domain-name <examples/domain-name.json: ok
zorvo-smtp-check -t domain-name <examples/domain-name.json: ok
zorvo-smtp-check: ok" "$(sed -n -E 's/^   (zorvo-smtp-check.*:) (nothing wrong|1 warning), ok$/\1 ok/p' "$own/stdout")"
assert_equal "last line" "== 19 lines checked, 0 not as requested" "$(tail -n 1 "$own/stdout")"
assert_equal "the machine" "$before" "$(machine_state)"
