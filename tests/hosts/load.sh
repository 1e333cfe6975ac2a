#!/usr/bin/env bash
# Many example clients publishing and subscribing at once through the example broker; the broker must
# then stop cleanly, and under AddressSanitizer report no leak beyond the session records the library
# deliberately keeps (the suppression file given).
# Usage: load.sh BROKER LOAD_CLIENTS LSAN_SUPPRESSIONS CLIENTS MESSAGES_PER_CLIENT
source "$(dirname "$0")/lib.sh"
export LSAN_OPTIONS="suppressions=$3:print_suppressions=0"
start_broker "$1"
"$2" "$PORT" "$4" "$5" || fail "messages were lost or doubled"
stop_broker
echo "broker stopped cleanly after the load"
