# shellcheck shell=bash
# Mail of a domain whose address was removed leaves from the default one, or waits where binding is enforced.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

start_receivers
bind -t domain-ip < <(one_domain)
assert_mail user@one.example 4 zorvo-192.0.2.2- 192.0.2.2 "$default_helo"

ip address delete 192.0.2.2/32 dev lo
assert_checked 1 "domain       service           IPv4       IPv6  HELO name        verdict
one.example  zorvo-192.0.2.2-  192.0.2.2  -     sandbox.example  address-not-on-host

problem: address-not-on-host
    one.example: IPv4 192.0.2.2, bind \"Cannot assign requested address\"
  Postfix cannot bind to the address, logs a warning and sends from the host's default one.
  Add the address to an interface, or bind to one that the host has.

$enforce_off

1 problem, 1 warning" -t domain-ip < <(one_domain)
assert_mail user@one.example 4 zorvo-192.0.2.2- 127.0.0.1 "$default_helo"
assert_true "the warning" grep -q 'warning: smtp_connect_addr: bind 192.0.2.2: Cannot assign requested address' \
    /run/postfix.log

postconf -e smtp_bind_address_enforce=yes
reload_postfix
assert_checked 1 "domain       service           IPv4       IPv6  HELO name        verdict
one.example  zorvo-192.0.2.2-  192.0.2.2  -     sandbox.example  address-not-on-host-enforced

problem: address-not-on-host-enforced
    one.example: IPv4 192.0.2.2, bind \"Cannot assign requested address\"
  Postfix cannot bind to the address, and with smtp_bind_address_enforce the mail waits in the queue.
  Add the address to an interface, or bind to one that the host has.

1 problem" -t domain-ip < <(one_domain)
assert_deferred user@one.example 4 "server configuration error"
