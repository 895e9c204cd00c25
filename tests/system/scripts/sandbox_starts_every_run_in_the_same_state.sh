# shellcheck shell=bash
# State, devices, addresses and processes are as the script's header says, and new in every run.
# shellcheck disable=SC2016 # expanded inside
# shellcheck source=outside.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/outside.sh"

run "$sandbox" sh -c '
    set -e
    cmp /etc/postfix/master.cf /usr/share/postfix/master.cf.dist
    find /run/sandbox /run/lock/files /var/spool/postfix/zorvo /var/lib/postfix -mindepth 1
    # Version 3.10 says what it copies into the queue folder for services in a chroot.
    postfix check >/run/sandbox.checked
    grep -v "^updating /etc/.* => /var/spool/postfix//etc/" /run/sandbox.checked || :
    postconf -h sender_dependent_default_transport_maps
    test ! -e /dev/log
    echo x >/dev/null
    head -c 1 /dev/zero | wc -c
    stat -c "%a %U:%G" /var/spool/postfix/zorvo /run/lock /run/lock/files /etc/postfix/master.cf
    ls /usr/local/maru/admin/sbin
    ps -e -o comm= >/run/sandbox.processes
    echo $(sort /run/sandbox.processes)
    uname -n
    for n in 1 9; do ip route get 192.0.2.$n; ip route get 198.51.100.$n; done | grep -c "^local"
    mkdir /run/sandbox/x && touch /etc/postfix/x /usr/sbin/x'
assert_equal "output" "0 hash:/var/spool/postfix/zorvo/sdd_transport_maps
1
755 root:root
1777 root:root
755 root:root
644 root:root
zorvorc
init ps sh
sandbox.example
4 " "$status $stdout $stderr"
run "$sandbox" sh -c 'ls /run/sandbox/x /etc/postfix/x /usr/sbin/x 2>/dev/null'
assert_equal "nothing is left for the next run" "2 " "$status $stdout"
run "$sandbox" sh -c 'touch /usr/local/bin/zorvo-test || true >>/usr/sbin/chroot || echo kept'
assert_equal "what belongs to the machine cannot be written" "0 kept" "$status $stdout"
[[ ! -e /usr/local/bin/zorvo-test ]] || fail "a file got through to the machine"
if sandbox_has_ipv6; then
    run "$sandbox" sh -c 'for n in 1 2 3 4 5 6 7 8 9; do ip -6 route get 2001:db8::$n; done | grep -c "^local"'
    assert_equal "IPv6 addresses" "0 9 " "$status $stdout $stderr"
fi
