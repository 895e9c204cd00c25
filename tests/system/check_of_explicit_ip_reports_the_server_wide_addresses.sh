# shellcheck shell=bash
# The addresses of the whole server: ok as asked for, a problem when main.cf names another one.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

start_receivers
bind -t explicit-ip -4 192.0.2.2
assert_checked 0 "domain          service  IPv4       IPv6  HELO name        verdict
(whole server)  -        192.0.2.2  -     sandbox.example  ok

$enforce_off

1 warning" -t explicit-ip -4 192.0.2.2
assert_mail user@one.example 4 smtp 192.0.2.2 "$default_helo"

postconf -e smtp_bind_address=192.0.2.3
reload_postfix
assert_checked 1 "domain          service  IPv4       IPv6  HELO name        verdict
(whole server)  -        192.0.2.2  -     sandbox.example  bind-address-differs

problem: bind-address-differs
    smtp_bind_address 192.0.2.3, asked for 192.0.2.2
  main.cf names another address than the one asked for, and mail in this family leaves from it.
  Run zorvo-smtp-bind with the whole request.

$enforce_off

1 problem, 1 warning" -t explicit-ip -4 192.0.2.2
assert_mail user@one.example 4 smtp 192.0.2.3 "$default_helo"
