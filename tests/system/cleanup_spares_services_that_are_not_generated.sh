# shellcheck shell=bash
# Only unix services whose name begins with the prefix are removed, whoever wrote them.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

cat >>"$master_cf" <<'END'
# kept: a comment
zorvo-x unix - - n - - smtp
zorvo-x inet n - n - - smtpd
  -o smtpd_banner=$myhostname
zorvo unix - - n - - smtp
END
sed -i 's/^zorvo-x inet/127.0.0.8:10025 inet/' "$master_cf"
sed '/^zorvo-x unix/d' "$master_cf" >"$scratch/expected"
bind -t domain-ip < <(request)
assert_same_file "master.cf" "$scratch/expected" "$master_cf"
