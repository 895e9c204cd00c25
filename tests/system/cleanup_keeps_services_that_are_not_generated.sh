# shellcheck shell=bash
# Only unix services whose name begins with the prefix are removed, whoever wrote them, continuation lines included.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

cat >>"$master_cf" <<'END'
# a comment stays
zorvo-x unix-dgram - - n - - postlogd
zorvo-y pass - - n - - smtpd
  -o smtpd_banner=$myhostname
zorvo unix - - n - - smtp
END
cp "$master_cf" "$scratch/expected"
cat >>"$master_cf" <<'END'
zorvo-x unix - - n - - smtp
zorvo-y	unix	-	-	n	-	-	smtp
	-o smtp_bind_address=127.0.0.2
# a comment inside the entry
	-o smtp_helo_name=two.example
END
bind -t domain-ip < <(request)
assert_same_file "master.cf" "$scratch/expected" "$master_cf"
assert_true "Postfix is up" postfix_is_up
