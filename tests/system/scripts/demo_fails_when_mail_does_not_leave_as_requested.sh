# shellcheck shell=bash
# The program binds one domain wrongly, and changes files for a malformed request.
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
run "$sandbox" scripts/demo --inside "$own/program" "$check_program"
assert_equal "status" 1 "$status"
assert_equal "wrong rows" \
    "user@four-only.example zorvo-four-only.example-127.0.0.7- 127.0.0.7 four-only.example FAIL: requested zorvo-four-only.example-127.0.0.4-, 127.0.0.4, four-only.example
FAIL: requested were exit status 1 and no change
FAIL: requested were exit status 1 and no change" "$(awk '/FAIL/ && !/zorvo-smtp-check/ { $1 = $1; print }' "$own/stdout")"
assert_equal "wrong states" \
    "zorvo-smtp-check -t domain-name <examples/domain-name.json: FAIL: right is \"no problem\"
zorvo-smtp-check -t domain-name <examples/domain-name.json: FAIL: right is \"no problem\"" \
    "$(sed -n 's/^   \(zorvo-smtp-check .*FAIL\)/\1/p' "$own/stdout")"
assert_equal "problems that the checks name" "\
problem: record-differs
problem: service-missing
severe: postfix-older-than-file" "$(sed -n -E 's/^     said: ((severe|problem): .*)/\1/p' "$own/stdout" | sort -u)"
assert_equal "last line" "== 19 lines checked, 3 not as requested" "$(tail -n 1 "$own/stdout")"
