#!/usr/bin/env bash
# Raw byte streams through the example broker, cut the way a network may cut them. The broker hands
# every read to the library just as it came, so these cuttings go through the library's own
# reassembly: packets byte by byte, several in one write, one split across writes, a short packet the
# library holds, streams that end inside a packet, and malformed streams that must close their own
# connection alone. Run where the broker is built with AddressSanitizer, whose leak check covers it.
# Usage: raw_streams.sh BROKER LSAN_SUPPRESSIONS
source "$(dirname "$0")/lib.sh"
export LSAN_OPTIONS="suppressions=$2:print_suppressions=0"
start_broker "$1"
v5=(-V mqttv5 -h 127.0.0.1 -p "$PORT")

# ---- Packets, as hexadecimal text ----
hex() { printf '%s' "$1" | od -An -tx1 -v | tr -d ' \n'; }
u16() { printf '%04x' "$1"; }
utf8() { u16 "${#1}"; hex "$1"; }
remaining_length()
{
    local rest=$1 digit
    while :; do
        digit=$((rest % 128)) rest=$((rest / 128))
        ((rest == 0)) || digit=$((digit | 128))
        printf '%02x' "$digit"
        ((rest > 0)) || break
    done
}
packet() { printf '%s%s%s' "$1" "$(remaining_length $((${#2} / 2)))" "$2"; }  # FIRST_BYTE BODY
connect() { packet 10 "$(utf8 MQTT)0502003c00$(utf8 "$1")"; }                   # CLIENT_ID
publish()                                                                        # TOPIC PAYLOAD QOS [ID]
{
    local id=""
    (($3 == 0)) || id=$(u16 "$4")
    packet "$(printf '%x' $((0x30 | $3 << 1)))" "$(utf8 "$1")${id}00$(hex "$2")"
}
subscribe() { packet "${4:-82}" "$(u16 "$1")00$(utf8 "$2")$(printf '%02x' "$3")"; }  # ID FILTER QOS [FIRST_BYTE]
PINGREQ=c000

# ---- Raw connections ----
# open_raw NAME: a socket to the broker on descriptor ${RAW[NAME]}.
declare -A RAW
open_raw() { exec {fd}<>"/dev/tcp/127.0.0.1/$PORT"; RAW[$1]=$fd; }
close_raw() { local fd=${RAW[$1]}; exec {fd}>&-; }
# send NAME HEX [PIECE_SIZES...]: writes the bytes in pieces of the given sizes, cycling through them
# (all at once without sizes), pausing between writes so that each tends to come as a read of its own.
send()
{
    local fd=${RAW[$1]} bytes=$2 at=0 piece=0
    shift 2
    local sizes=("${@:-$((${#bytes} / 2))}")
    while ((at < ${#bytes})); do
        local size=${sizes[piece++ % ${#sizes[@]}]}
        printf "$(sed 's/../\\x&/g' <<<"${bytes:at:size * 2}")" >&"$fd"
        at=$((at + size * 2))
        sleep 0.02
    done
}

# A client whose packets come byte by byte, then in odd pieces: several packets in one write, packets
# split across writes, inside their fixed headers too.
mosquitto_sub "${v5[@]}" -i watcher -t drip/out -q 1 -C 3 -W 60 >"$WORK/watcher" &
PIDS+=($!)
WATCHER=$!
wait_for "$WORK/trace" " watcher SUBACK"
open_raw drip
# The PINGREQ, given byte by byte, is added to the byte before it: the library holds its two bytes
# until four have come, so it is answered once the next packet's bytes arrive.
send drip "$(connect drip)$PINGREQ" 1
wait_for "$WORK/trace" "out .* drip CONNACK reason=0x00"
send drip "$(subscribe 1 drip/in 1)$(publish drip/out one 1 2)$(publish drip/out two 1 3)$(publish drip/out three 0)" 3 1 7 2 5 11
wait_for "$WORK/trace" "out .* drip PINGRESP"
wait_for "$WORK/trace" "out .* drip SUBACK id=1 reason=0x01"
wait_for "$WORK/trace" "out .* drip PUBACK id=3 reason=0x00"
wait "$WATCHER" || fail "the watcher did not get the three messages"
[[ $(cat "$WORK/watcher") == $'one\ntwo\nthree' ]] || fail "the messages changed on their way: $(cat "$WORK/watcher")"
mosquitto_pub "${v5[@]}" -t drip/in -m back
wait_for "$WORK/trace" "out .* drip PUBLISH topic=\"drip/in\" qos=0 payload=4B"
(($(grep -c " read 1B, " "$WORK/trace") >= 10)) || fail "the bytes did not come one read each"
# A DISCONNECT of three bytes, then the end of the input: the library holds it until the end mark
# completes it, and the connection closes once the worker has handled it.
send drip e00104
close_raw drip
wait_for "$WORK/trace" "in .* drip DISCONNECT reason=0x04 size=3B"
wait_for "$WORK/trace" "net .* drip closed"
echo "packets byte by byte and in odd pieces: every one answered, in order"

# A client that closes right behind a burst, without DISCONNECT: the end mark follows its last packet,
# so every packet is handled before its session goes.
mosquitto_sub "${v5[@]}" -i burst-watcher -t burst/out -C 100 -W 60 >"$WORK/burst" &
PIDS+=($!)
SUBSCRIBER=$!
wait_for "$WORK/trace" " burst-watcher SUBACK"
burst=$(connect burst)
for message in $(seq 100); do
    burst+=$(publish burst/out "m$message" 0)
done
open_raw burst
send burst "$burst"
close_raw burst
wait "$SUBSCRIBER" || fail "packets were lost when the client closed behind them"
seq 100 | sed 's/^/m/' | cmp -s - "$WORK/burst" || fail "the burst arrived out of order or changed"
# Its input may end before its CONNECT is handled: the line names the connection by its address.
burst_address=$(sed -n 's/^out \([^ ]*\) burst CONNACK.*/\1/p' "$WORK/trace")
wait_for "$WORK/trace" "net $burst_address( burst)? input ended at a packet boundary: end mark fed"
echo "a burst, then the end of the input: all 100 messages handled before the connection closed"

# A stream that ends inside a packet: no end mark could come out, the connection closes at once.
open_raw partial
send partial "$(connect partial)$(publish partial/out x 0 | head -c 8)"
wait_for "$WORK/trace" "out .* partial CONNACK"
close_raw partial
wait_for "$WORK/trace" "partial input ended: closing at once"
wait_for "$WORK/trace" "net .* partial closed"
echo "input ending inside a packet: closed at once"

# Malformed streams close their own connection; another client keeps receiving meanwhile.
mosquitto_sub "${v5[@]}" -i survivor -t still/here -C 4 -W 60 >"$WORK/survivor" &
PIDS+=($!)
SURVIVOR=$!
wait_for "$WORK/trace" " survivor SUBACK"
# bad-flags: a SUBSCRIBE with flags 0 behind a PUBLISH in one write, refused by the library after the
# PUBLISH (Send is true, the error flag tells). oversized: a remaining length above the library's
# 10 MiB block. five-bytes: a remaining length of five bytes. Both are too large for the broker from
# their third length byte. ping-flags: a PINGREQ with the flags only the broker's end mark carries.
malformed=(
    "bad-flags 0x81 $(publish any/topic x 0)$(subscribe 1 a/b 0 80)"
    "oversized 0x95 30$(remaining_length $((0xA00000 + 1)))0003612f62"
    "five-bytes 0x95 30ffffffff7f0003612f62"
    "ping-flags 0x81 cf00"
)
for case in "${malformed[@]}"; do
    read -r name reason bytes <<<"$case"
    open_raw "$name"
    send "$name" "$(connect "$name")"
    wait_for "$WORK/trace" "out .* $name CONNACK"
    send "$name" "$bytes"
    wait_for "$WORK/trace" "out .* $name DISCONNECT reason=$reason"
    wait_for "$WORK/trace" "net .* $name closed"
    close_raw "$name"
    mosquitto_pub "${v5[@]}" -t still/here -m "alive after $name"
done
wait "$SURVIVOR" || fail "another client suffered from the malformed ones"
[[ $(cat "$WORK/survivor") == $'alive after bad-flags\nalive after oversized\nalive after five-bytes\nalive after ping-flags' ]] ||
    fail "the other client's messages changed: $(cat "$WORK/survivor")"
echo "malformed streams: each closed its own connection, the others carried on"

stop_broker
echo "broker stopped cleanly"
