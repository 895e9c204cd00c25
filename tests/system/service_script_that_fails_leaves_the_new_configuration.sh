# shellcheck shell=bash
# A failed restart changes neither the files nor the status.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

printf '#!/bin/sh\necho broken\necho worse >&2\nexit 1\n' >"$zorvorc"
bind -t domain-ip < <(request one.example 127.0.0.2 "")
assert_equal "records" "@one.example	zorvo-127.0.0.2-:" "$(records)"
