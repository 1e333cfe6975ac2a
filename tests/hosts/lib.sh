# Helpers of the host tests: programs started in the background, waits on what they print, and a
# clean-up that stops exactly the processes the test started.
set -euo pipefail

WORK=$(mktemp -d)
PIDS=()
cleanup()
{
    for pid in "${PIDS[@]}"; do
        kill "$pid" 2>/dev/null || true
    done
    wait 2>/dev/null || true
    rm -rf "$WORK"
}
trap cleanup EXIT

fail()
{
    echo "FAIL: $*" >&2
    [[ -f $WORK/trace ]] && tail -n 20 "$WORK/trace" >&2
    exit 1
}

# wait_for FILE PATTERN [SECONDS]: waits until a line of FILE matches PATTERN (grep -E).
wait_for()
{
    local deadline=$((SECONDS + ${3:-20}))
    until grep -Eq -- "$2" "$1" 2>/dev/null; do
        ((SECONDS < deadline)) || fail "no line matching '$2' in $(basename "$1")"
        sleep 0.05
    done
}

# start_broker BINARY: the example broker on a free port, tracing into $WORK/trace; sets PORT.
start_broker()
{
    "$1" --port 0 --pools 2 --trace >"$WORK/trace" 2>&1 &
    BROKER_PID=$!
    PIDS+=("$BROKER_PID")
    wait_for "$WORK/trace" "^listening on"
    PORT=$(sed -n 's/^listening on 127\.0\.0\.1:\([0-9]*\).*/\1/p' "$WORK/trace")
}

# stop_broker: SIGTERM, then its exit status must be 0.
stop_broker()
{
    kill -TERM "$BROKER_PID"
    local status=0
    wait "$BROKER_PID" || status=$?
    ((status == 0)) || fail "the broker exited with status $status"
}
