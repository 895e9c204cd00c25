# shellcheck shell=bash
# Without private namespaces, a container without a configured Postfix is used itself, with the same state.
# shellcheck source=outside.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/outside.sh"

# shellcheck disable=SC2016 # expanded in the container
needs_throw_away
cat >"$own/inside.sh" <<'END'
. tests/system/scripts/outside.sh
mkdir -p /usr/local/maru /run/lock/files
echo own >/usr/local/maru/own
echo own >/run/lock/files/own
# What is put back is a new file: of another time, but the same in all else.
state() { machine_state | sed 's/^\([a-z] [0-7]* [^ ]* [0-9]*\) [0-9.]* /\1 /'; }
before=$(state)
running() { ps -e -o comm= | grep -x -e master -e qmgr -e pickup -e sleep || :; }
run scripts/sandbox bash -c '
    set -e
    cmp /etc/postfix/master.cf /usr/share/postfix/master.cf.dist
    find /run/sandbox /run/lock/files /var/spool/postfix/zorvo -mindepth 1
    cat /run/sandbox.direct /run/sandbox.no-ipv6
    ls /usr/local/maru
    /usr/local/maru/admin/sbin/zorvorc postfix start
    setsid sleep 1000 &
    postconf -h inet_protocols
    echo x >/usr/sbin/postmap
    rm /usr/sbin/postconf
    exit 7'
assert_equal "status and output" "7 unshare: unshare failed: Operation not permitted
no IPv6 address can be had: those of this machine stay as they are
admin
ipv4" "$status $stdout"
assert_equal "what is said about it" "sandbox: the kernel refuses private namespaces (unshare: unshare failed: Operation not permitted): working directly on this container, and putting it back afterwards" "$stderr"
assert_equal "machine afterwards" "$before" "$(state)"
assert_equal "content" "own own" "$(echo $(cat /usr/local/maru/own /run/lock/files/own))"
assert_equal "processes afterwards" "" "$(running)"

# Killed half-way: the next run undoes it first.
scripts/sandbox bash -c '/usr/local/maru/admin/sbin/zorvorc postfix start
    echo x >/usr/sbin/postmap; touch /run/sandbox/ready; sleep 1000' 2>/dev/null &
pid=$!
poll test -e /run/sandbox/ready
# Whenever bash tells of it, in kill or in wait, it tells nobody.
exec 3>&2 2>/dev/null
kill -KILL $pid
wait $pid || :
exec 2>&3 3>&-
run scripts/sandbox postmap -q x static:real
assert_equal "run after a killed one" "0 real" "$status $stdout"
assert_equal "first line said" "sandbox: putting back what an unfinished run left on this machine" "$(head -n 1 <<<"$stderr")"
assert_equal "machine after a killed run" "$before" "$(state)"
assert_equal "processes after a killed run" "" "$(running)"

# A signal is passed on, and everything put back.
scripts/sandbox bash -c 'touch /run/sandbox/ready; exec sleep 1000' 2>/dev/null &
pid=$!
poll test -e /run/sandbox/ready
kill -TERM $pid
status=0
wait $pid || status=$?
assert_equal "status after TERM" 143 "$status"
assert_equal "machine after TERM" "$before" "$(state)"

# Runs wait for each other: mkdir fails if two overlap.
pids=
for n in 1 2 3; do
    scripts/sandbox sh -c 'mkdir /run/one && sleep 0.2 && rmdir /run/one' 2>/dev/null &
    pids+=" $!"
done
for pid in $pids; do wait $pid; done

mkdir -p $own/tools
printf '#!/bin/sh\necho stand-in\n' >$own/tools/postmap
chmod +x $own/tools/postmap
run scripts/sandbox --tools $own/tools postmap
assert_equal "--tools" "0 stand-in" "$status $stdout"
assert_equal "machine after all" "$before" "$(state)"
END
run "$throw_away" bash "$own/inside.sh"
assert_equal "everything in the container" "0  " "$status $stdout $stderr"
