# shellcheck shell=bash
# A record that is not in the request still binds its domain.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

start_receivers
bind -t domain-ip < <(request one.example 192.0.2.2 "" two.example 192.0.2.3 "")
assert_checked 1 "domain       service           IPv4       IPv6  HELO name        verdict
one.example  zorvo-192.0.2.2-  192.0.2.2  -     sandbox.example  ok

problem: record-left-over
    record @two.example, in the table zorvo-192.0.2.3-:
  The table binds a domain that the request does not name, and its mail leaves as this record says.
  Run zorvo-smtp-bind with the whole request.

$enforce_off

1 problem, 1 warning" -t domain-ip < <(one_domain)
assert_mail user@one.example 4 zorvo-192.0.2.2- 192.0.2.2 "$default_helo"
assert_mail user@two.example 4 zorvo-192.0.2.3- 192.0.2.3 "$default_helo"
