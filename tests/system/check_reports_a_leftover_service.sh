# shellcheck shell=bash
# A generated service that no record names does no harm: mail leaves as asked for.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

start_receivers
bind -t domain-ip < <(one_domain)
echo 'zorvo-192.0.2.9- unix - - n - - smtp -o smtp_bind_address=192.0.2.9' >>"$master_cf"
reload_postfix
assert_checked 0 "domain       service           IPv4       IPv6  HELO name        verdict
one.example  zorvo-192.0.2.2-  192.0.2.2  -     sandbox.example  ok

warning: service-left-over
    service zorvo-192.0.2.9-
  No record names the service, and no mail uses it.
  Run zorvo-smtp-bind with the whole request, which removes it.

$enforce_off

2 warnings" -t domain-ip < <(one_domain)
assert_mail user@one.example 4 zorvo-192.0.2.2- 192.0.2.2 "$default_helo"
assert_mail user@two.example 4 smtp 127.0.0.1 "$default_helo"
