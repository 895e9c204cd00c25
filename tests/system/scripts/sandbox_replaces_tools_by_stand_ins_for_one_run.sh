# shellcheck shell=bash
# --tools replaces those tools that its folder has, for this run only.
# shellcheck source=outside.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/outside.sh"

mkdir "$own/tools"
for tool in postconf zorvorc; do
    printf '#!/bin/sh\necho "stand-in of %s: $*"\n' "$tool" >"$own/tools/$tool"
    chmod 755 "$own/tools/$tool"
done
run "$sandbox" --tools "$own/tools" sh -c '
    /usr/sbin/postconf -n; /usr/local/maru/admin/sbin/zorvorc postfix start; /usr/sbin/postmap -q x static:real'
assert_equal "with stand-ins" "0 stand-in of postconf: -n
stand-in of zorvorc: postfix start
real " "$status $stdout $stderr"
run "$sandbox" /usr/sbin/postconf -h myhostname
assert_equal "without" "0 sandbox.example " "$status $stdout $stderr"
run "$sandbox" --tools /nonexistent true
assert_equal "no such folder" "125  sandbox: /nonexistent is not a folder" "$status $stdout $stderr"
