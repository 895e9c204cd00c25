# shellcheck shell=bash
# No mail leaves a stopped Postfix; after the remedy the mail that waited does.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

start_receivers
bind -t domain-ip < <(one_domain)
postfix stop 2>/dev/null
assert_checked 1 "domain       service           IPv4       IPv6  HELO name        verdict
one.example  zorvo-192.0.2.2-  192.0.2.2  -     sandbox.example  postfix-not-running

severe: postfix-not-running
  No mail leaves.
  Start Postfix; if it does not come up, its log tells why.

$enforce_off

1 severe, 1 warning" -t domain-ip < <(one_domain)

name=$(recipient waiting 4)
send_mail user@one.example "$name" 2>/dev/null
assert_equal "mails that wait" 1 "$(find /var/spool/postfix/maildrop -type f | wc -l)"
assert_equal "what a receiver saw of it" "" "$(received_header "$name" X-Mail-Args || :)"

postfix start 2>/dev/null
assert_true "Postfix is up" poll postfix_is_up
assert_checked 0 "domain       service           IPv4       IPv6  HELO name        verdict
one.example  zorvo-192.0.2.2-  192.0.2.2  -     sandbox.example  ok

$enforce_off

1 warning" -t domain-ip < <(one_domain)
assert_true "the mail arrives" wait_received "$name"
assert_equal "its source address" 192.0.2.2 "$(seen_source "$name")"
