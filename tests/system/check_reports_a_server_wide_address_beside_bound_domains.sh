# shellcheck shell=bash
# An address in main.cf beside bound domains: mail of all others leaves from it.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

start_receivers
bind -t domain-ip < <(one_domain)
postconf -e smtp_bind_address=192.0.2.3
reload_postfix
assert_checked 1 "domain       service           IPv4       IPv6  HELO name        verdict
one.example  zorvo-192.0.2.2-  192.0.2.2  -     sandbox.example  ok

problem: bind-address-beside-domains
    smtp_bind_address 192.0.2.3
  Mail of all domains that are not bound leaves from this address instead of the host's default one.
  Run zorvo-smtp-bind, which takes the parameter out of main.cf.

$enforce_off

1 problem, 1 warning" -t domain-ip < <(one_domain)
assert_mail user@one.example 4 zorvo-192.0.2.2- 192.0.2.2 "$default_helo"
assert_mail user@two.example 4 smtp 192.0.2.3 "$default_helo"
