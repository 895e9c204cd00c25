# shellcheck shell=bash
# Without private namespaces nothing is done to a machine with a configured Postfix, or to one that is not a container.
# shellcheck source=outside.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/outside.sh"

needs_throw_away
# shellcheck disable=SC2016 # expanded in the container
run "$throw_away" sh -c 'echo "# in use" >/etc/postfix/main.cf
    scripts/sandbox touch /run/touched; echo $?; cat /etc/postfix/main.cf; ls /run'
assert_equal "a configured Postfix" "0 125
# in use
lock sandbox: the kernel refuses private namespaces (unshare: unshare failed: Operation not permitted), and Postfix is configured on this machine (/etc/postfix/main.cf)" "$status $stdout $stderr"
# Without the file that marks a container, and with an init as the first process.
# shellcheck disable=SC2016
run "$throw_away" sh -c 'rm /.dockerenv; cp /bin/sh /run/init
    exec /run/init -c "scripts/sandbox touch /run/touched; echo \$?; ls /run"'
assert_equal "no container" "0 125
init
lock sandbox: the kernel refuses private namespaces (unshare: unshare failed: Operation not permitted), and this machine is not a container: it might be somebody's mail server" "$status $stdout $stderr"
