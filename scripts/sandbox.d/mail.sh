# shellcheck shell=bash
# Sourced inside the sandbox: real mail through its Postfix, and what the receiving server saw of it.
#
# Receivers are smtp-sink(1) on port 25 of one IPv4 and one IPv6 address. Mail goes to an address literal, so that the
# next hop needs no DNS: the transport is then chosen by the sender alone. What was received is found by its recipient,
# so every mail needs one of its own.

mail_folder=/run/sandbox/mail
receiver4=127.0.0.9
receiver6=2001:db8::9
mail_deadline=20 # seconds: far more than a busy machine takes, so a test never fails by it unless mail is lost

# has_ipv6: whether the sandbox has IPv6 addresses; why_no_ipv6 prints the reason if not.
has_ipv6() { [[ ! -e /run/sandbox.no-ipv6 ]]; }
why_no_ipv6() { cat /run/sandbox.no-ipv6; }

# poll COMMAND...: runs it until it succeeds; fails at the deadline.
poll() {
    local end=$((SECONDS + mail_deadline))
    until "$@"; do
        ((SECONDS < end)) || return 1
        sleep 0.05
    done
}

accepts_connections() { (: <"/dev/tcp/$1/25") 2>/dev/null; }

# start_receivers: returns when both (IPv6: if there is any) accept connections.
start_receivers() {
    mkdir -p "$mail_folder"
    chown nobody "$mail_folder" # smtp-sink gives up its rights before it writes
    (cd "$mail_folder" && exec smtp-sink -u nobody -D received4 "$receiver4:25" 100 >>sink4.log 2>&1) &
    receiver_pids=$!
    poll accepts_connections "$receiver4" || return 1
    has_ipv6 || return 0
    (cd "$mail_folder" && exec smtp-sink -u nobody -D received6 "[$receiver6]:25" 100 >>sink6.log 2>&1) &
    receiver_pids+=" $!"
    poll accepts_connections "$receiver6"
}

stop_receivers() {
    # shellcheck disable=SC2086 # a list of numbers
    kill $receiver_pids
    # shellcheck disable=SC2086
    wait $receiver_pids 2>/dev/null || :
}

# recipient NAME 4|6: prints NAME's address at the receiver of that address family.
recipient() {
    case $2 in
    4) echo "$1@[$receiver4]" ;;
    6) echo "$1@[IPv6:$receiver6]" ;;
    esac
}

# send_mail SENDER RECIPIENT: hands one mail to Postfix.
send_mail() {
    printf 'From: <%s>\nTo: <%s>\nSubject: source address\n\nHello.\n' "$1" "$2" | /usr/sbin/sendmail -f "$1" -- "$2"
}

# received_header RECIPIENT HEADER: prints what the receiver noted of RECIPIENT's mail; fails while there is none.
# HEADER is one of those that smtp-sink -D writes: X-Client-Addr, X-Helo-Args, X-Mail-Args, ...
received_header() {
    local files=("$mail_folder"/received[46])
    [[ -e ${files[0]} ]] || return 1
    awk -v recipient="<$1>" -v header="$2:" '
        $1 == "X-Client-Addr:" { delete value } # begins a mail
        $1 ~ /^X-.*:$/ && !($1 in value) { value[$1] = $2 }
        # The last line of a mail that belongs to the envelope is followed by the message, which a blank line ends.
        $1 == "X-Rcpt-Args:" && $2 == recipient { found = 1; mine = value[header] }
        END { if (!found) exit 1; print mine }' "${files[@]}"
}

# wait_received RECIPIENT: returns when the mail is there and Postfix has said so in its log; fails at the deadline.
wait_received() { poll delivery_is_logged "$1" && received_header "$1" X-Client-Addr >/dev/null; }
delivery_is_logged() { grep -q -F "to=<$1>, relay=" /run/postfix.log && grep -F "to=<$1>," /run/postfix.log | grep -q 'status=sent'; }

# seen_source RECIPIENT, seen_helo RECIPIENT: source address and HELO name that the receiver saw.
seen_source() {
    local address
    address=$(received_header "$1" X-Client-Addr)
    echo "${address#ipv6:}"
}
seen_helo() { received_header "$1" X-Helo-Args; }

# seen_service RECIPIENT: the master.cf service that delivered, as master(8) named it on the command line of the very
# process that logged the delivery (it stays for max_idle). A service named like its program is not named there.
seen_service() {
    local pid name=smtp argument previous=
    pid=$(grep -F "to=<$1>, relay=" /run/postfix.log | grep 'status=sent' | tail -n 1 | sed 's/^[^[]*\[\([0-9]*\)\]:.*/\1/')
    while IFS= read -r -d '' argument; do
        if [[ $previous = -n ]]; then name=$argument; fi
        previous=$argument
    done <"/proc/$pid/cmdline"
    echo "$name"
}
