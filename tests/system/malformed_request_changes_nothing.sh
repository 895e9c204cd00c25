# shellcheck shell=bash
# A malformed request is refused before anything is touched; Postfix runs on, and mail leaves as before.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

start_receivers
bind -t domain-ip < <(request one.example 127.0.0.2 "")
before=$(fingerprint)
pid=$(master_pid)
run_program -t domain-name <"$framework_folder/../../examples/malformed.json"
assert_equal "status" 1 "$status"
message="Fatal error: std::runtime_error(can not parse data from stdin : JSON value separator (',') or end of array is expected. Error occured at offset 98, character '{'. )"
assert_equal "standard error" "$message" "$(<"$scratch/stderr")"
assert_equal "standard output" "$message" "$(<"$scratch/stdout")"
assert_equal "files" "$before" "$(fingerprint)"
assert_equal "Postfix's process" "$pid" "$(master_pid)"
assert_mail user@one.example 4 zorvo-127.0.0.2- 127.0.0.2 "$default_helo"
