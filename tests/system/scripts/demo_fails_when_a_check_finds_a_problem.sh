# shellcheck shell=bash
# All mail leaves as requested, but zorvo-smtp-check finds a problem or fails.
# shellcheck source=outside.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/outside.sh"

sandbox_has_ipv6 || skip "no IPv6 address can be had"
cat >"$own/check" <<END
#!/bin/sh
case " \$*" in
*explicit-ip*) printf 'problem: made-up\n\nnothing wrong\n'; exit 0 ;;
*domain-ip) echo "nothing wrong"; exit 2 ;;
*) exec "$check_program" "\$@" ;;
esac
END
chmod +x "$own/check"
chmod 755 "$own"
run "$sandbox" scripts/demo --inside "$program" "$own/check"
assert_equal "status" 1 "$status"
assert_equal "wrong checks" "\
   zorvo-smtp-check --transport-type=explicit-ip --ip4-addr=127.0.0.6 --ip6-addr=2001:db8::6: FAIL: right is \"no problem\"
   zorvo-smtp-check -t domain-ip <examples/domain-ip.json: FAIL: right is \"no problem\"" "$(grep FAIL "$own/stdout")"
assert_equal "last line" "== 19 lines checked, 0 not as requested" "$(tail -n 1 "$own/stdout")"
