# shellcheck shell=bash
# The HELO name goes with the domain, whatever the receiver's family.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

needs_ipv6
start_receivers
bind -t domain-name < <(request both.example 127.0.0.2 2001:db8::2 six.example "" 2001:db8::3)
assert_mail user@both.example 4 zorvo-both.example-127.0.0.2-2001-db8--2 127.0.0.2 both.example
assert_mail user@both.example 6 zorvo-both.example-127.0.0.2-2001-db8--2 2001:db8::2 both.example
assert_mail user@six.example 6 zorvo-six.example--2001-db8--3 2001:db8::3 six.example
