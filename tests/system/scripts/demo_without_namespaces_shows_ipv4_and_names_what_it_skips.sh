# shellcheck shell=bash
# Without namespaces the demo shows the IPv4 part and gives the reason for each line that it leaves out.
# shellcheck source=outside.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/outside.sh"

needs_throw_away
run "$throw_away" scripts/sandbox scripts/demo --inside "$program" "$check_program"
assert_equal "status" 0 "$status"
assert_equal "rows that are as requested" 10 "$(grep -c '^   user@.* ok$' "$own/stdout")"
assert_equal "skipped rows" 7 \
    "$(grep -c '^   user@.* skipped: no IPv6 address can be had: those of this machine stay as they are$' "$own/stdout")"
assert_equal "checks that find IPv6 missing" 4 "$(grep -c '^   zorvo-smtp-check .* without IPv6 ok$' "$own/stdout")"
assert_equal "checks that find nothing wrong" 1 "$(grep -c '^   zorvo-smtp-check: .*[^6] ok$' "$own/stdout")"
assert_equal "last line" \
    "== 12 lines checked, 0 not as requested, 7 skipped (no IPv6 address can be had: those of this machine stay as they are)" \
    "$(tail -n 1 "$own/stdout")"
