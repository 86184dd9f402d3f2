#!/usr/bin/env bash
# Fails when a file under src/ includes a header of a higher layer than its
# own, or sits in a folder src/LAYERS does not name.
set -euo pipefail
cd "$(dirname "$0")/../src"
declare -A rank
n=0
while read -r layer; do
  [[ -z $layer || $layer == \#* ]] && continue
  rank[$layer]=$((n++))
done <LAYERS

status=0
while IFS= read -r file; do
  own=${file%%/*}
  if [[ -z ${rank[$own]+x} ]]; then
    echo "$file: folder '$own' is not in src/LAYERS" >&2
    status=1
    continue
  fi
  while IFS= read -r header; do
    to=${header%%/*}
    [[ -z ${rank[$to]+x} ]] && continue  # a system header
    if ((rank[$to] > rank[$own])); then
      echo "$file includes $header: '$own' must not depend on '$to', a higher layer" >&2
      status=1
    fi
  done < <(sed -n 's/^#include "\([^"]*\)".*/\1/p' "$file")
done < <(find . -name '*.h' -o -name '*.cpp' | sed 's#^\./##' | sort)
exit $status
