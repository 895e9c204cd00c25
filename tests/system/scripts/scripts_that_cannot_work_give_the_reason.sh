# shellcheck shell=bash
# Each script that cannot work says why and fails before it has done anything.
# shellcheck source=outside.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/outside.sh"

# A copy that another user may read.
mkdir "$own/project"
cp -r scripts examples "$own/project"
chmod -R a+rX "$own"
for name in sandbox:125 install-deps:1 demo:1 test:1; do
    script=${name%:*}
    arguments=()
    [[ $script != sandbox ]] || arguments=(true)
    run setpriv --reuid 65534 --regid 65534 --clear-groups "$own/project/scripts/$script" "${arguments[@]}"
    assert_equal "$script as another user" "${name#*:}  $script: must be run as root" "$status $stdout $stderr"
done
run "$sandbox"
assert_equal "no command" "125  sandbox: usage: sandbox [--tools DIR] [--] COMMAND [ARGUMENT...]" "$status $stdout $stderr"
run "$sandbox" --nonsense true
assert_equal "unknown option" "125  sandbox: unknown option --nonsense" "$status $stdout $stderr"
run "$sandbox" "$sandbox" true
assert_equal "a sandbox in a sandbox" "125  sandbox: this is a sandbox already" "$status $stdout $stderr"
run scripts/test --nonsense
assert_equal "usage of test" "2  usage: scripts/test [--release|--asan]" "$status $stdout $stderr"
run scripts/demo --nonsense
assert_equal "usage of demo" "1  usage: scripts/demo" "$status $stdout $stderr"
