#!/usr/bin/env bash
# The load generator's check that every message arrives once and in order, shown able to fail: clean
# runs through the example broker pass, and one message left out or sent twice is reported.
# Usage: loadgen_check.sh BROKER LOADGEN
source "$(dirname "$0")/lib.sh"
LOADGEN=$2
start_broker "$1"

for qos in 0 1 2; do
  "$LOADGEN" --port "$PORT" --qos "$qos" --publishers 2 --subscribers 2 --count 1000 --timeout 30 >"$WORK/out" ||
    fail "a clean run at QoS $qos failed"
  grep -q "^loadgen: messages=2000 deliveries=4000 " "$WORK/out" || fail "QoS $qos: $(cat "$WORK/out")"
done

# fault_reported FAULT QOS WORDS: the run exits 1 and says WORDS.
fault_reported()
{
  local status=0
  "$LOADGEN" --port "$PORT" --qos "$2" --count 1000 --fault "$1" --timeout 30 2>"$WORK/err" || status=$?
  ((status == 1)) && grep -q "$3" "$WORK/err" || fail "--fault $1 at QoS $2: status $status, $(cat "$WORK/err")"
}
fault_reported drop 1 "message 500 of publisher 0 is missing"
fault_reported duplicate 2 "message 499 of publisher 0 arrived again"
stop_broker
echo "the load generator reports a missing and a repeated message"
