# shellcheck shell=bash
# A run that adds no service leaves the package's master.cf as it is, byte for byte, even when it stores it.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

bind -t explicit-ip -4 127.0.0.2
assert_same_file "master.cf" "$stock" "$master_cf"
# A store for certain: a service was removed.
echo 'zorvo-x unix - - n - - smtp' >>"$master_cf"
bind -t explicit-ip -4 127.0.0.2
assert_same_file "master.cf" "$stock" "$master_cf"
