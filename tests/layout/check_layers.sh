#!/usr/bin/env bash
# Checks the include layering of the core: each subsystem folder of src/ may
# include only the folders listed for it below ("talmem/" is the public
# include folder). The entry layer (interface/) sits on top, so no other
# subsystem may include a file of it.
# Usage: check_layers.sh <src folder>
set -euo pipefail

src="${1:?usage: check_layers.sh <src folder>}"
[ -d "$src" ] || { echo "check_layers: no folder $src" >&2; exit 2; }

declare -A allowed=(
  [common]="common"
  [inpool]="common inpool"
  [descriptor]="common descriptor chunk talmem"
  [chunk]="common chunk descriptor talmem"
  [config]="common config descriptor monitor talmem"
  [monitor]="common monitor chunk config pool talmem"
  [pool]="common pool chunk config descriptor inpool monitor talmem"
  [interface]="common interface pool chunk config descriptor inpool monitor talmem"
)

failures=0
for dir in "$src"/*/; do
  sub=$(basename "$dir")
  if [ -z "${allowed[$sub]+set}" ]; then
    echo "check_layers: src/$sub is not a known subsystem; add it to the table" >&2
    failures=$((failures + 1))
    continue
  fi
  # Quoted includes with a folder part (#include "folder/File.h"); <...> are system headers.
  while IFS=: read -r file line folder; do
    if [[ " ${allowed[$sub]} " != *" $folder "* ]]; then
      echo "check_layers: ${file#"$src"/}:$line includes $folder/, not allowed in src/$sub" >&2
      failures=$((failures + 1))
    fi
  done < <(grep -HnoE '^[[:space:]]*#[[:space:]]*include[[:space:]]*"[a-z_]+/' -r "$dir" \
             | sed -E 's/#[[:space:]]*include[[:space:]]*"//; s#/$##; s/:[[:space:]]*/:/2')
done

if [ "$failures" -ne 0 ]; then
  echo "check_layers: $failures include(s) break the layering" >&2
  exit 1
fi
echo "check_layers: every include of src/ respects the layering"
