# shellcheck shell=bash
# The command gets the caller's streams, arguments, directory and environment, and the caller gets its status.
# shellcheck source=outside.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/outside.sh"

run "$sandbox" sh -c 'cat; echo to stderr >&2; exit 7' <<<"from stdin"
assert_equal "status and streams" "7 from stdin to stderr" "$status $stdout $stderr"
run "$sandbox" -- printf '<%s>' "" "a b" '*' "a
b" --tools
assert_equal "arguments" "0 <><a b><*><a
b><--tools> " "$status $stdout $stderr"
# shellcheck disable=SC2016 # expanded inside
run env -C "$own" X="a b" "$sandbox" sh -c 'pwd; echo "$X"'
assert_equal "folder and environment" "0 $own
a b " "$status $stdout $stderr"
for signal in 6 9 11 15; do
    run "$sandbox" sh -c "kill -$signal \$\$"
    assert_equal "death by signal $signal" "$((128 + signal))  " "$status $stdout $stderr"
done
run "$sandbox" /nonexistent/program
assert_equal "a missing program" 127 "$status"
run "$sandbox" /etc/passwd
assert_equal "a file that is not a program" 126 "$status"
