#!/usr/bin/env bash
# The example client against Debian's mosquitto broker (MQTT v5), on a free loopback port.
# Usage: client_against_mosquitto.sh CLIENT
source "$(dirname "$0")/lib.sh"

for attempt in 1 2 3 4 5; do
    port=$((20000 + RANDOM % 40000))
    printf 'listener %d 127.0.0.1\nallow_anonymous true\n' "$port" >"$WORK/mosquitto.conf"
    mosquitto -c "$WORK/mosquitto.conf" >"$WORK/mosquitto.log" 2>&1 &
    PIDS+=($!)
    if wait_for "$WORK/mosquitto.log" "running|Error" 10 && grep -q running "$WORK/mosquitto.log"; then
        break
    fi
    ((attempt < 5)) || fail "mosquitto did not start"
done

"$1" --port "$port" --id example-client --sub 'check/#' --sub-qos 2 --pub check/every-qos \
    --qos 0 --message "at qos 0" --qos 1 --message "at qos 1" --qos 2 --message "at qos 2" >"$WORK/client" 2>&1 ||
    fail "the client failed: $(cat "$WORK/client")"
for qos in 0 1 2; do
    grep -qx "received topic=\"check/every-qos\" qos=$qos payload=\"at qos $qos\"" "$WORK/client" ||
        fail "the message at QoS $qos did not come back: $(cat "$WORK/client")"
done
grep -q "example-client disconnected" "$WORK/mosquitto.log" || fail "mosquitto did not see a clean DISCONNECT"
echo "example client against mosquitto: connected, subscribed, published and received at QoS 0, 1 and 2"
