#!/usr/bin/env bash
# Checks the dynamic symbol table of the built library against the interface hosts link to:
# every listed name must be exported, spelled exactly, and nothing else may escape the export
# macro except members of the two exported classes.
# Usage: exported_symbols.sh LIBRARY NAME_LIST
set -euo pipefail
library=$1
name_list=$2

demangled=$(nm -D --defined-only "$library" | awk '{print $3}' | c++filt)
wanted=$(grep -v -E '^\s*(#|$)' "$name_list")

status=0
while IFS= read -r name; do
  if [[ $name == *::* ]]; then
    # A class method: its demangled signature starts with the qualified name and an open parenthesis.
    grep -qF -- "$name(" <<<"$demangled" || { echo "not exported: $name"; status=1; }
  else
    grep -qx -- "$name" <<<"$demangled" || { echo "not exported: $name"; status=1; }
  fi
done <<<"$wanted"

while IFS= read -r symbol; do
  [[ -z $symbol ]] && continue
  grep -qx -- "$symbol" <<<"$wanted" && continue
  [[ $symbol =~ ^(CMQTTProtocol_Packet|CMQTTProtocol_Parse):: ]] && continue
  [[ $symbol == __odr_asan.* ]] && continue  # AddressSanitizer's one-definition-rule markers
  echo "exported but not part of the interface: $symbol"
  status=1
done <<<"$demangled"

[[ $status -eq 0 ]] && echo "exported interface: $(wc -l <<<"$wanted") names present, nothing else exported"
exit $status
