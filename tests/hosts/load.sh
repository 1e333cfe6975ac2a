#!/usr/bin/env bash
# Many connections at once through the example broker: a load generator run at QoS 1 and one at QoS 2
# side by side, each with many publishers and one subscriber that must get every message once and in
# order, and the example client at every QoS meanwhile. The broker must then stop cleanly, and under
# AddressSanitizer report no leak beyond the session records the library deliberately keeps (the
# suppression file given).
# Usage: load.sh BROKER LOADGEN CLIENT LSAN_SUPPRESSIONS PUBLISHERS MESSAGES_PER_PUBLISHER
source "$(dirname "$0")/lib.sh"
export LSAN_OPTIONS="suppressions=$4:print_suppressions=0"
start_broker "$1"
for qos in 1 2; do
  "$2" --port "$PORT" --qos "$qos" --publishers "$5" --count "$6" --timeout 120 >"$WORK/qos$qos" 2>&1 &
  PIDS+=($!)
done
"$3" --port "$PORT" --sub 'own/#' --pub own/x --qos 0 --message zero --qos 1 --message one --qos 2 --message two \
  >"$WORK/own" 2>&1 || fail "the example client failed: $(cat "$WORK/own")"
[[ $(grep -c '^received' "$WORK/own") == 3 ]] || fail "the example client did not get its three messages back"
for run in 1 2; do
  wait "${PIDS[$run]}" || fail "QoS $run: messages were lost, doubled or reordered: $(cat "$WORK/qos$run")"
done
stop_broker
echo "broker stopped cleanly after the load: $(cat "$WORK/qos1" "$WORK/qos2" | tr '\n' ' ')"
