# shellcheck shell=bash
# Whatever a command does to what the sandbox makes private does not reach the machine.
# shellcheck disable=SC2016 # expanded inside
# shellcheck source=outside.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/outside.sh"

before=$(machine_state)
run "$sandbox" bash -c '
    set -e
    /usr/local/maru/admin/sbin/zorvorc postfix start
    echo hello | /usr/sbin/sendmail root@[127.0.0.9]
    ip addr add 203.0.113.1/32 dev lo
    echo other.example >/proc/sys/kernel/hostname || :
    mount -t tmpfs tmpfs /mnt
    rm /usr/sbin/postconf /usr/local/maru/admin/sbin/zorvorc /etc/postfix/master.cf
    echo x >/usr/sbin/postmap
    touch /usr/sbin/new /usr/local/new /run/lock/files/new /var/spool/postfix/zorvo/new /etc/postfix/new /dev/log
    touch /dev/shm/zorvo-new /var/lib/postfix/new /run/new
    rm -r /run/lock
    sleep "$1" & disown' bash "31536$$"
assert_equal "status and output" "0  " "$status $stdout $stderr"
assert_equal "the machine" "$before" "$(machine_state)"
assert_equal "shared memory" "" "$(find /dev/shm -name zorvo-new)"
gone() { ! pgrep -f "sleep 31536$$" >/dev/null; }
poll gone || fail "a process outlived the sandbox"
