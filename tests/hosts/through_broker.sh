#!/usr/bin/env bash
# Debian's mosquitto_sub and mosquitto_pub (MQTT v5), and the example client, through the example broker.
# Usage: through_broker.sh BROKER CLIENT
source "$(dirname "$0")/lib.sh"
start_broker "$1"
v5=(-V mqttv5 -h 127.0.0.1 -p "$PORT")

# subscribe ID FILTER QOS COUNT [more mosquitto_sub options]: output in $WORK/ID, once subscribed.
subscribe()
{
    local id=$1 filter=$2 qos=$3 count=$4
    shift 4
    mosquitto_sub "${v5[@]}" -i "$id" -t "$filter" -q "$qos" -C "$count" -W 60 "$@" >"$WORK/$id" &
    PIDS+=($!)
    SUBSCRIBER=$!
    wait_for "$WORK/trace" " $id SUBACK"
}

# 1,000 messages in a burst at each QoS: every one arrives once, intact.
seq 1000 | sed 's/^/message /' >"$WORK/expected"
for qos in 0 1 2; do
    subscribe "burst$qos" "burst/$qos/#" "$qos" 1000
    mosquitto_pub "${v5[@]}" -i "pub$qos" -t "burst/$qos/x" -q "$qos" -l <"$WORK/expected"
    wait "$SUBSCRIBER" || fail "QoS $qos: mosquitto_sub did not get 1000 messages"
    sort -V "$WORK/burst$qos" | cmp -s - "$WORK/expected" || fail "QoS $qos: messages lost, doubled or changed"
done
echo "1000 messages at QoS 0, 1 and 2: each once, intact"

# A payload of 1 MiB.
head -c 1048576 /dev/urandom >"$WORK/large"
subscribe big "large" 1 1 -N
mosquitto_pub "${v5[@]}" -t large -q 1 -f "$WORK/large"
wait "$SUBSCRIBER" || fail "the 1 MiB message did not arrive"
cmp -s "$WORK/big" "$WORK/large" || fail "the 1 MiB payload changed on its way"
echo "1 MiB payload: intact"

# A retained QoS 1 message (flags 0x3): kept, and sent to a later subscriber with RETAIN at QoS 1.
mosquitto_pub "${v5[@]}" -t kept/a -q 1 -r -m "kept at qos 1"
mosquitto_sub "${v5[@]}" -t "kept/#" -q 1 -C 1 -W 10 -F '%r %q %p' >"$WORK/kept"
[[ $(cat "$WORK/kept") == "1 1 kept at qos 1" ]] || fail "retained message: got '$(cat "$WORK/kept")'"
echo "retained QoS 1 message: stored and delivered with RETAIN"

# Several filters in one SUBSCRIBE are refused whole.
mosquitto_sub "${v5[@]}" -i two-filters -t a -t b -C 1 -W 2 >/dev/null 2>&1 || true
grep -q "out .* two-filters SUBACK id=[0-9]* reason=0x83" "$WORK/trace" || fail "two filters were not refused"
echo "several filters refused with 0x83"

# The example client through the example broker (at every QoS in the sanitizers' load run).
printf 'a\0"b' | "$2" --port "$PORT" --sub binary --pub binary --qos 1 --file - >"$WORK/binary" ||
    fail "the binary payload did not come back: $(cat "$WORK/binary")"
grep -qF 'payload="a\x00\x22b"' "$WORK/binary" || fail "the binary payload was not printed safely: $(cat "$WORK/binary")"
"$2" --port "$PORT" --sub 'a/#/b' >"$WORK/refused" 2>&1 && fail "a refused subscription exited 0"
grep -q "SUBACK 0x8F (topic filter invalid)" "$WORK/refused" || fail "the refusal was not named: $(cat "$WORK/refused")"
echo "example client: a binary message came back; a refusal exits 1, named"

stop_broker
echo "broker stopped cleanly"
