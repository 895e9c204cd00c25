# shellcheck shell=bash
# Mail of a domain whose record was deleted by hand leaves as if it were not bound.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

start_receivers
bind -t domain-ip < <(two_domains)
postmap -d @one.example "$table"
assert_checked 1 "domain       service           IPv4       IPv6  HELO name        verdict
one.example  zorvo-192.0.2.2-  192.0.2.2  -     sandbox.example  record-missing
two.example  zorvo-192.0.2.3-  192.0.2.3  -     sandbox.example  ok

problem: record-missing
    one.example: service zorvo-192.0.2.2-
  The table does not name the domain, so its mail leaves as if it were not bound.
  Run zorvo-smtp-bind with the whole request.

$enforce_off

1 problem, 1 warning" -t domain-ip < <(two_domains)

# Without the request nothing says that the domain should be bound. Its service is still there.
assert_checked 0 "domain       service           IPv4       IPv6  HELO name        verdict
two.example  zorvo-192.0.2.3-  192.0.2.3  -     sandbox.example  ok

warning: service-left-over
    service zorvo-192.0.2.2-
  No record names the service, and no mail uses it.
  Run zorvo-smtp-bind with the whole request, which removes it.

$enforce_off

2 warnings" </dev/null
assert_mail user@one.example 4 smtp 127.0.0.1 "$default_helo"
assert_mail user@two.example 4 zorvo-192.0.2.3- 192.0.2.3 "$default_helo"
