# shellcheck shell=bash
# Without the file of a table that main.cf names, mail of all domains waits in the queue.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

start_receivers
bind -t domain-ip < <(one_domain)
mv "$database" "$scratch/"
reload_postfix
assert_checked 1 "domain       service           IPv4       IPv6  HELO name        verdict
one.example  zorvo-192.0.2.2-  192.0.2.2  -     sandbox.example  table-unavailable

severe: table-unavailable
    table $table
  Postfix defers all mail, of other domains as well, because a lookup in the table fails.
  Run zorvo-smtp-bind with the whole request.

$enforce_off

1 severe, 1 warning" -t domain-ip < <(one_domain)
assert_deferred user@one.example 4 "address resolver failure"
assert_deferred user@two.example 4 "address resolver failure"
