# shellcheck shell=bash
# A file that ends with a line feed has an empty last line, and a new service comes after it: one more each run.
# shellcheck source=framework.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/framework.sh"

service() { echo "zorvo-127.0.0.$1- unix - - n - - smtp -o smtp_bind_address=127.0.0.$1 -o smtp_bind_address6= -o smtp_address_preference=ipv4 -o inet_protocols=ipv4"; }
for run in 1 2 3; do
    bind -t domain-ip < <(request one.example "127.0.0.$((run + 1))" "" two.example 127.0.0.9 "")
    {
        cat "$stock"
        for ((blank = 0; blank < run; blank++)); do echo; done
        service "$((run + 1))"
        service 9
    } >"$scratch/expected"
    assert_same_file "master.cf after run $run" "$scratch/expected" "$master_cf"
done
bind -t domain-ip < <(request)
assert_same_file "master.cf after a run without domains" "$stock" "$master_cf"
