# shellcheck shell=bash
# A table before the generated one takes the domain away from its service.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

start_receivers
bind -t domain-ip < <(two_domains)
earlier=hash:$scratch/earlier
echo '@one.example smtp:' | postmap -i "$earlier"
postconf -e "sender_dependent_default_transport_maps=$earlier, $table"
reload_postfix
assert_checked 1 "domain       service           IPv4       IPv6  HELO name        verdict
one.example  zorvo-192.0.2.2-  192.0.2.2  -     sandbox.example  earlier-table-catches-domain
two.example  zorvo-192.0.2.3-  192.0.2.3  -     sandbox.example  ok

problem: earlier-table-catches-domain
    one.example: table $earlier, result smtp:
  Postfix finds the domain in an earlier table, and mail leaves as that table says.
  Take the domain out of that table, or put the generated table before it in sender_dependent_default_transport_maps.

$enforce_off

1 problem, 1 warning" -t domain-ip < <(two_domains)
assert_mail user@one.example 4 smtp 127.0.0.1 "$default_helo"
assert_mail user@two.example 4 zorvo-192.0.2.3- 192.0.2.3 "$default_helo"
