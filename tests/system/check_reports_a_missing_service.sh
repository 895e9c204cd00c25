# shellcheck shell=bash
# Mail of a domain whose service was deleted by hand waits in the queue.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

start_receivers
bind -t domain-ip < <(one_domain)
sed -i '/^zorvo-192/d' "$master_cf"
reload_postfix
assert_checked 1 "domain       service           IPv4       IPv6  HELO name        verdict
one.example  zorvo-192.0.2.2-  192.0.2.2  -     sandbox.example  service-missing

problem: service-missing
    one.example: service zorvo-192.0.2.2-
  The service is not in master.cf, and mail that the table gives to it waits in the queue (\"mail transport unavailable\").
  Run zorvo-smtp-bind with the whole request.

$enforce_off

1 problem, 1 warning" -t domain-ip < <(one_domain)
assert_deferred user@one.example 4 "mail transport unavailable"
