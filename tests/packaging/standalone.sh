# shellcheck shell=bash disable=SC2034 # for the tests
# Sourced by the tests of zorvo-smtp-bind-standalone: a host without the panel, the packages, and what is done with them.
program=/usr/local/maru/admin/sbin/zorvo-smtp-bind
zorvorc=/usr/local/maru/admin/sbin/zorvorc
shipped=/usr/share/zorvo-smtp-bind-standalone/zorvorc
parameter=sender_dependent_default_transport_maps
table=hash:/var/spool/postfix/zorvo/sdd_transport_maps
packages=(build/package/zorvo-smtp-bind_"$version"_*.deb build/package/zorvo-smtp-bind-standalone_"$version"_all.deb)

# shellcheck source=steps.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/steps.sh"
# shellcheck source=../../scripts/sandbox.d/mail.sh source-path=SCRIPTDIR
. scripts/sandbox.d/mail.sh

status_and_output() {
    local status=0 output
    output=$("$@" 2>&1) || status=$?
    echo "$status $output"
}

master_pid() { tr -d ' ' </var/spool/postfix/pid/master.pid; }
reloads() { grep -c 'postfix/master\[.*: reload -- version' /run/postfix.log || :; }
# reloaded BEFORE: more often than this. (The log is written after the command has ended.)
reloaded() { [ "$(reloads)" -gt "$1" ]; }
setting() { postconf -n "$parameter"; }
# Postfix's tools wait until main.cf is two seconds old.
settle() { [[ ! -e /etc/postfix/main.cf ]] || touch -d '1 hour ago' /etc/postfix/main.cf; }
install_both() {
    settle
    run "dpkg -i" dpkg -i "${packages[@]}"
    settle
}
remove_second() {
    settle
    run "dpkg --remove" dpkg --remove zorvo-smtp-bind-standalone
    settle
}
purge_both() { run "dpkg --purge" dpkg --purge zorvo-smtp-bind-standalone zorvo-smtp-bind; }
# upgrade SUFFIX: to packages whose versions end with it; the service script's last line tells it.
upgrade() {
    local package
    for package in "${packages[@]}"; do
        next_version "$package" "$1"
        [[ ! -e /run/sandbox/next$shipped ]] || echo "# version $1" >>"/run/sandbox/next$shipped"
        run "dpkg-deb" dpkg-deb --build /run/sandbox/next "/run/sandbox/$(basename "$package")"
    done
    run "upgrade" dpkg -i /run/sandbox/zorvo-smtp-bind{,-standalone}_"$version"_*.deb
}
# request DOMAINS: the request that bind hands to the program.
request() { echo "{\"domains\": [$1]}" >/run/sandbox/request; }
bind() {
    settle
    same "status and output of the run" "0 " "$(status_and_output "$program" -t domain-ip </run/sandbox/request)"
}
one_domain='{"domain": "example.com", "ip4_addr": "127.0.0.2", "ip6_addr": ""}'

# A machine on which nobody has set anything up: the sandbox stands for one with the panel.
rm "$zorvorc"
postconf -X "$parameter"
rm -rf /run/lock/files /var/spool/postfix/zorvo
settle
cp -p /etc/postfix/main.cf /run/sandbox/main.cf
bare() { cp -p /run/sandbox/main.cf /etc/postfix/main.cf; }
