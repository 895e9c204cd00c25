# shellcheck shell=bash
# A service of one family cannot use inet_interfaces that names the other: its mail waits in the queue.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

needs_ipv6
start_receivers
postconf -e 'inet_interfaces=127.0.0.1, [::1]'
bind -t domain-ip < <(one_domain)
assert_checked 1 "domain       service           IPv4       IPv6  HELO name        verdict
one.example  zorvo-192.0.2.2-  192.0.2.2  -     sandbox.example  inet-interfaces-stop-service

problem: inet-interfaces-stop-service
    one.example: inet_interfaces \"127.0.0.1, [::1]\"
  smtp(8) with one family cannot use the address of the other family in inet_interfaces: it ends with \"host not found\", and the mail waits in the queue.
  Set inet_interfaces to \"all\", or give the domain an address of each family.

$enforce_off

1 problem, 1 warning" -t domain-ip < <(one_domain)
name=$(recipient waiting 4)
send_mail user@one.example "$name"
# The queue manager keeps it for as long as master(8) holds the service back.
assert_true "smtp(8) ends" poll grep -q 'fatal: config variable inet_interfaces: host not found: \[::1\]' /run/postfix.log
assert_mail user@two.example 4 smtp 127.0.0.1 "$default_helo"
assert_equal "what a receiver saw of it" "" "$(received_header "$name" X-Mail-Args || :)"
assert_equal "mails in the queue" 1 "$(find /var/spool/postfix/active /var/spool/postfix/deferred -type f | wc -l)"
