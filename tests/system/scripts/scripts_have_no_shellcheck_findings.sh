# shellcheck shell=bash
# No shell script has a finding of shellcheck.
# shellcheck source=outside.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/outside.sh"

scripts=(scripts/install-deps scripts/sandbox scripts/demo scripts/test .ci/run tests/system/throw-away)
for file in scripts/sandbox.d/* tests/system/*.sh tests/system/scripts/*.sh; do
    [[ $file == *.cf ]] || scripts+=("$file")
done
run shellcheck -x "${scripts[@]}"
assert_equal "findings" "0  " "$status $stdout $stderr"
