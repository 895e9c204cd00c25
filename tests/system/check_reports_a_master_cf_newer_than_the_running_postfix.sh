# shellcheck shell=bash
# After master.cf was touched, mail leaves as before until Postfix has read it again.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

start_receivers
bind -t domain-ip < <(one_domain)
touch "$master_cf"
assert_checked 1 "domain       service           IPv4       IPv6  HELO name        verdict
one.example  zorvo-192.0.2.2-  192.0.2.2  -     sandbox.example  postfix-older-than-file

severe: postfix-older-than-file
    file $master_cf
  Postfix was started before the file was last changed, and may still send as it did before.
  Restart Postfix.

$enforce_off

1 severe, 1 warning" -t domain-ip < <(one_domain)
assert_mail user@one.example 4 zorvo-192.0.2.2- 192.0.2.2 "$default_helo"

bind -t domain-ip < <(one_domain)
assert_checked 0 "domain       service           IPv4       IPv6  HELO name        verdict
one.example  zorvo-192.0.2.2-  192.0.2.2  -     sandbox.example  ok

$enforce_off

1 warning" -t domain-ip < <(one_domain)
assert_mail user@one.example 4 zorvo-192.0.2.2- 192.0.2.2 "$default_helo"
