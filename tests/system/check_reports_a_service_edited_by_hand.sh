# shellcheck shell=bash
# Mail leaves as before until Postfix has read the edited service, and as edited from then on.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

rest="-o smtp_bind_address6= -o smtp_address_preference=ipv4 -o inet_protocols=ipv4"
service_differs="problem: service-differs
    one.example: service zorvo-192.0.2.2-, in master.cf \"smtp -o smtp_bind_address=192.0.2.3 $rest\", asked for \"smtp -o smtp_bind_address=192.0.2.2 $rest\"
  The service in master.cf is not as zorvo-smtp-bind sets it up, and mail leaves as master.cf says.
  Run zorvo-smtp-bind with the whole request."

start_receivers
bind -t domain-ip < <(one_domain)
sed -i 's/smtp_bind_address=192.0.2.2/smtp_bind_address=192.0.2.3/' "$master_cf"
assert_checked 1 "domain       service           IPv4       IPv6  HELO name        verdict
one.example  zorvo-192.0.2.2-  192.0.2.2  -     sandbox.example  postfix-older-than-file +1

severe: postfix-older-than-file
    file $master_cf
  Postfix was started before the file was last changed, and may still send as it did before.
  Restart Postfix.

$service_differs

$enforce_off

1 severe, 1 problem, 1 warning" -t domain-ip < <(one_domain)
assert_mail user@one.example 4 zorvo-192.0.2.2- 192.0.2.2 "$default_helo"

reload_postfix
assert_checked 1 "domain       service           IPv4       IPv6  HELO name        verdict
one.example  zorvo-192.0.2.2-  192.0.2.2  -     sandbox.example  service-differs

$service_differs

$enforce_off

1 problem, 1 warning" -t domain-ip < <(one_domain)
assert_mail user@one.example 4 zorvo-192.0.2.2- 192.0.2.3 "$default_helo"
