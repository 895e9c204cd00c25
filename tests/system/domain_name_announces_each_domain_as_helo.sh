# shellcheck shell=bash
# Each domain has a service of its own and is its HELO name, in lower case.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

start_receivers
bind -t domain-name < <(request one.example 127.0.0.2 "" Two.Example 127.0.0.2 "")
assert_equal "what binds" "
zorvo-one.example-127.0.0.2- unix - - n - - smtp -o smtp_bind_address=127.0.0.2 -o smtp_bind_address6= -o smtp_address_preference=ipv4 -o inet_protocols=ipv4 -o smtp_helo_name=one.example
zorvo-two.example-127.0.0.2- unix - - n - - smtp -o smtp_bind_address=127.0.0.2 -o smtp_bind_address6= -o smtp_address_preference=ipv4 -o inet_protocols=ipv4 -o smtp_helo_name=two.example
@one.example	zorvo-one.example-127.0.0.2-:
@two.example	zorvo-two.example-127.0.0.2-:" "$(bound)"
assert_mail user@one.example 4 zorvo-one.example-127.0.0.2- 127.0.0.2 one.example
assert_mail user@two.example 4 zorvo-two.example-127.0.0.2- 127.0.0.2 two.example
assert_mail user@TWO.example 4 zorvo-two.example-127.0.0.2- 127.0.0.2 two.example
assert_mail user@three.example 4 smtp 127.0.0.1 "$default_helo"
