# shellcheck shell=bash
# A program that binds one domain wrongly and touches files for a malformed request does not get past the demo.
# shellcheck source=outside.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/outside.sh"

sandbox_has_ipv6 || skip "no IPv6 address can be had"
cat >"$own/program" <<END
#!/bin/sh
input=\$(sed 's/"127.0.0.4"/"127.0.0.7"/')
echo "\$input" | "$program" "\$@"
status=\$?
[ \$status -eq 0 ] || echo "# touched" >>/etc/postfix/main.cf
exit \$status
END
chmod +x "$own/program"
chmod 755 "$own"
run "$sandbox" scripts/demo --inside "$own/program"
assert_equal "status" 1 "$status"
assert_equal "wrong rows" \
    "user@four-only.example zorvo-four-only.example-127.0.0.7- 127.0.0.7 four-only.example FAIL: requested zorvo-four-only.example-127.0.0.4-, 127.0.0.4, four-only.example
FAIL: requested were exit status 1 and no change
FAIL: requested were exit status 1 and no change" "$(awk '/FAIL/ { $1 = $1; print }' "$own/stdout")"
assert_equal "last line" "== 19 lines checked, 3 not as requested" "$(tail -n 1 "$own/stdout")"
