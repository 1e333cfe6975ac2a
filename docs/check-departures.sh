#!/usr/bin/env bash
# Fails when docs/departures.md names a test that does not exist: every `Suite.Test` in its
# "Pinned by" column must be a GoogleTest case of one of the given test programs (in any instance of a
# parameterised suite).
# Usage: check-departures.sh DEPARTURES_MD TEST_PROGRAM...
set -euo pipefail
table=$1
shift

known=$(for program in "$@"; do
  # Parameterised cases are listed as Instance/Suite. and Test/Param: both count as Suite.Test.
  "$program" --gtest_list_tests |
    awk '/^[^ ]/ {suite=$1; sub(/^[^\/]*\//, "", suite)} /^  / {name=$1; sub(/\/.*/, "", name); print suite name}'
done)

named=$(grep -oE '`[A-Za-z0-9_]+\.[A-Za-z0-9_]+`' "$table" | tr -d '`' | sort -u)
[[ -n $named ]] || { echo "no tests named in $table"; exit 1; }

status=0
while IFS= read -r test; do
  grep -qxF -- "$test" <<<"$known" || { echo "named in $table but no such test: $test"; status=1; }
done <<<"$named"
[[ $status -eq 0 ]] && echo "$(wc -l <<<"$named") tests named in the departures table, all present"
exit $status
