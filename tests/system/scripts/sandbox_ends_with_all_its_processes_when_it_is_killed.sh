# shellcheck shell=bash
# However the sandbox is killed, no process in it survives.
# shellcheck source=outside.sh source-path=SCRIPTDIR
. "${BASH_SOURCE[0]%/*}/outside.sh"

before=$(machine_state)
mark="sleep 31537$$"
marked() { pgrep -x -f "$mark" >/dev/null; }
gone() { ! pgrep -f "$mark" >/dev/null; }
# One child stays with the shell, one leaves its session.
command="setsid $mark & $mark; true"
for signal in TERM HUP KILL; do
    "$sandbox" sh -c "$command" &
    pid=$!
    poll marked || fail "did not start"
    kill -"$signal" "$pid"
    status=0
    wait "$pid" 2>/dev/null || status=$?
    assert_equal "status after $signal" "$((128 + $(kill -l "$signal")))" "$status"
    poll gone || fail "processes left after $signal"
done
# Ctrl-C goes to the whole foreground group. (env: shells start background jobs with SIGINT ignored.)
setsid env --default-signal=INT "$sandbox" sh -c "$command" &
pid=$!
poll marked || fail "did not start"
kill -INT -- "-$pid"
status=0
wait "$pid" 2>/dev/null || status=$?
assert_equal "status after INT" 130 "$status"
poll gone || fail "processes left after INT"
assert_equal "the machine" "$before" "$(machine_state)"
