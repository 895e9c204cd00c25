# shellcheck shell=bash
# Four domains as asked for: every line says ok, and mail leaves as the table says.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

needs_ipv6
four_domains() {
    request one.example 192.0.2.2 "" two.example "" 2001:db8::2 three.example 192.0.2.3 2001:db8::3 \
        four.example 192.0.2.4 ""
}

start_receivers
bind -t domain-name < <(four_domains)
assert_checked 0 "domain         service                                    IPv4       IPv6         HELO name      verdict
one.example    zorvo-one.example-192.0.2.2-               192.0.2.2  -            one.example    ok
two.example    zorvo-two.example--2001-db8--2             -          2001:db8::2  two.example    ok
three.example  zorvo-three.example-192.0.2.3-2001-db8--3  192.0.2.3  2001:db8::3  three.example  ok
four.example   zorvo-four.example-192.0.2.4-              192.0.2.4  -            four.example   ok

$enforce_off

1 warning" -t domain-name < <(four_domains)
assert_mail user@one.example 4 zorvo-one.example-192.0.2.2- 192.0.2.2 one.example
assert_mail user@two.example 6 zorvo-two.example--2001-db8--2 2001:db8::2 two.example
assert_mail user@three.example 4 zorvo-three.example-192.0.2.3-2001-db8--3 192.0.2.3 three.example
assert_mail user@three.example 6 zorvo-three.example-192.0.2.3-2001-db8--3 2001:db8::3 three.example
assert_mail user@four.example 4 zorvo-four.example-192.0.2.4- 192.0.2.4 four.example

# Without a request, what is bound is reported in the order of the names.
assert_checked 0 "domain         service                                    IPv4       IPv6         HELO name      verdict
four.example   zorvo-four.example-192.0.2.4-              192.0.2.4  -            four.example   ok
one.example    zorvo-one.example-192.0.2.2-               192.0.2.2  -            one.example    ok
three.example  zorvo-three.example-192.0.2.3-2001-db8--3  192.0.2.3  2001:db8::3  three.example  ok
two.example    zorvo-two.example--2001-db8--2             -          2001:db8::2  two.example    ok

$enforce_off

1 warning" </dev/null
