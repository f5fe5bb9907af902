#!/usr/bin/env bash
# Proves that the shipped library exports exactly the public entries: the
# demangled names of its defined dynamic symbols must equal the expected list
# (one name a line; order and duplicate constructor/destructor variants do
# not matter).
# Usage: check_exports.sh <libtalmemorypool_zoeis.so> <expected.txt>
set -euo pipefail

lib="$1"
expected="$2"
[ -f "$lib" ] || { echo "check_exports: no library at $lib" >&2; exit 2; }
[ -f "$expected" ] || { echo "check_exports: no expected list at $expected" >&2; exit 2; }

actual_names=$(nm -D --defined-only "$lib" | cut -d' ' -f3- | c++filt | LC_ALL=C sort -u)
expected_names=$(grep -v '^[[:space:]]*$' "$expected" | LC_ALL=C sort -u)

if [ -z "$actual_names" ]; then
  echo "check_exports: $lib exports nothing" >&2
  exit 1
fi
if ! differences=$(diff <(echo "$expected_names") <(echo "$actual_names")); then
  echo "check_exports: exported symbols differ ('<' expected only, '>' exported only):" >&2
  echo "$differences" >&2
  exit 1
fi
echo "check_exports: $(echo "$actual_names" | wc -l) public symbols, nothing else"
