# shellcheck shell=bash
# The test of the framework itself: a test that should fail does and says why, and one that cannot run is skipped.
# shellcheck disable=SC2016 # the inner tests expand what is quoted here
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

mkdir "$scratch/own"
own_test=$scratch/own/test.sh

# outcome PROGRAM: runs the test on standard input with PROGRAM in place of both; prints its status and what it says first.
# Everything but that line (the dump) is left in $scratch/own/output.
outcome() {
    local status=0
    {
        echo ". '$framework_folder/framework.sh'"
        cat
    } >"$own_test"
    bash "$own_test" "$1" "$1" >"$scratch/own/output" 2>&1 </dev/null || status=$?
    echo "$status $(head -n 1 "$scratch/own/output")"
}

# program_that TEXT: makes a program of these shell lines, and prints its name.
program_that() {
    printf '#!/bin/sh\n%s\n' "$1" >"$scratch/own/program"
    chmod +x "$scratch/own/program"
    echo "$scratch/own/program"
}

idle=/bin/true
assert_equal "an empty test passes" "0 " "$(outcome $idle </dev/null)"
assert_equal "equal values pass" "0 " "$(outcome $idle <<<'assert_equal x "a b" "a b"')"
assert_equal "a pattern does not equal its match" "1 FAILED at test.sh:2: x" "$(outcome $idle <<<'assert_equal x "a*" "ab"')"
assert_true "both values are said" grep -q '^expected: a\*$' "$scratch/own/output"
assert_true "a failure dumps the state" grep -q '^--- changes of master.cf$' "$scratch/own/output"
assert_equal "different files fail" "1 FAILED at test.sh:2: x" \
    "$(outcome $idle <<<'assert_same_file x "$stock" "$main_cf"')"
assert_equal "a missing file fails" "1 FAILED at test.sh:2: x" \
    "$(outcome $idle <<<'assert_same_file x "$stock" /nonexistent')"
assert_equal "a false command fails" "1 FAILED at test.sh:2: x" "$(outcome $idle <<<'assert_true x false')"
assert_equal "a command's failure fails" "1 FAILED at test.sh:2: a command ended with status 77" \
    "$(outcome $idle <<<'bash -c "exit 77"')"
assert_equal "a skip is told from success" "77 skipped: no reason" "$(outcome $idle <<<'skip no reason')"

assert_equal "bind wants status 0" "1 FAILED at test.sh:2: status of a run that should succeed" \
    "$(outcome /bin/false <<<'bind')"
assert_equal "bind wants no output" "1 FAILED at test.sh:2: standard output" \
    "$(outcome "$(program_that 'echo x')" <<<'bind')"
assert_equal "bind wants no error output" "1 FAILED at test.sh:2: standard error" \
    "$(outcome "$(program_that 'echo x >&2')" <<<'bind')"
assert_equal "a file left behind is noticed" "1 FAILED at test.sh:2: files" \
    "$(outcome "$(program_that ': >/etc/postfix/master.cf.x')" <<<'run_program')"
rm /etc/postfix/master.cf.x
assert_equal "a wrong mode is noticed" "1 FAILED at test.sh:2: owner and mode of master.cf" \
    "$(outcome "$(program_that 'chmod 600 /etc/postfix/master.cf')" <<<'run_program')"
chmod 644 "$master_cf"
assert_equal "a broken master.cf is noticed" "1 FAILED at test.sh:2: master.cf according to postconf" \
    "$(outcome "$(program_that 'echo x >>/etc/postfix/master.cf')" <<<'run_program')"
cp "$stock" "$master_cf"

assert_equal "a check that changes a file is noticed" \
    "1 FAILED at test.sh:2: files, locks and queue manager after a check" \
    "$(outcome "$(program_that ': >/run/lock/files/x')" <<<'check')"
rm /run/lock/files/x
assert_equal "assert_checked wants no error output" "1 FAILED at test.sh:2: standard error of the check" \
    "$(outcome "$(program_that 'echo x >&2')" <<<'assert_checked 0 ""')"
assert_equal "assert_checked wants the whole report" "1 FAILED at test.sh:2: report" \
    "$(outcome "$(program_that 'echo x; echo y')" <<<'assert_checked 0 x')"
assert_equal "assert_checked wants the status" "1 FAILED at test.sh:2: status of the check" \
    "$(outcome "$(program_that 'echo x; exit 1')" <<<'assert_checked 0 x')"
assert_equal "assert_checked passes" "0 " "$(outcome "$(program_that 'echo x; exit 1')" <<<'assert_checked 1 x')"

assert_equal "a request of two" '{"domains": [
  {"domain": "a", "ip4_addr": "b", "ip6_addr": ""},
  {"domain": "c", "ip4_addr": "", "ip6_addr": "d"}]}' "$(request a b "" c "" d)"

# Without its table Postfix takes no mail at all.
: >"${table#*:}"
postmap "$table"
rm "${table#*:}"
"$zorvorc" postfix start
start_receivers
# What a mail that arrives is compared with; the receivers are this test's.
sent='mail_count=$RANDOM; assert_mail user@one.example 4'
assert_equal "mail as expected" "0 " "$(outcome $idle <<<"$sent smtp 127.0.0.1 sandbox.example")"
for wrong in "zorvo-x 127.0.0.1 sandbox.example" "smtp 127.0.0.2 sandbox.example" "smtp 127.0.0.1 other.example"; do
    assert_equal "mail not as expected ($wrong)" "1 FAILED at test.sh:2: sender, service, source address and HELO name" \
        "$(outcome $idle <<<"$sent $wrong")"
done
stop_receivers
assert_equal "mail that does not arrive" "1 FAILED at test.sh:3: no mail from user@one.example to lost1@[127.0.0.9] within 1 seconds" \
    "$(outcome $idle <<'END'
mail_deadline=1; recipient() { echo "lost1@[127.0.0.9]"; }
assert_mail user@one.example 4 smtp 127.0.0.1 sandbox.example
END
)"
