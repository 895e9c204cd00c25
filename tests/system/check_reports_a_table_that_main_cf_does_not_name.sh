# shellcheck shell=bash
# Without the table in main.cf, mail of all domains leaves as if none were bound.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

start_receivers
bind -t domain-ip < <(one_domain)
postconf -X sender_dependent_default_transport_maps
reload_postfix
assert_checked 1 "domain       service           IPv4       IPv6  HELO name        verdict
one.example  zorvo-192.0.2.2-  192.0.2.2  -     sandbox.example  table-not-in-main-cf

severe: table-not-in-main-cf
    table $table, sender_dependent_default_transport_maps \"\"
  Postfix does not look into the table, and mail leaves as if no domain were bound.
  Add the table to sender_dependent_default_transport_maps in main.cf, then reload Postfix.

$enforce_off

1 severe, 1 warning" -t domain-ip < <(one_domain)
assert_mail user@one.example 4 smtp 127.0.0.1 "$default_helo"
