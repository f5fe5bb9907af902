#!/bin/sh
# Profiles the public pooled pair of bench_public under callgrind and prints
# the share of each layer of the path, in user-space instructions per pair
# (system calls and the other threads are not counted by callgrind).
#   scripts/profile-public.sh [build dir] [benchmark filter]
set -eu
BUILD=${1:-build/host}
FILTER=${2:-BM_PublicPooledPair/1/256}
OUT=$(mktemp /tmp/talmem-callgrind.XXXXXX)
valgrind --tool=callgrind --callgrind-out-file="$OUT" --toggle-collect='*PublicStep*' \
  "$BUILD/bench/bench_public" --benchmark_filter="$FILTER" --benchmark_min_time=0.05 \
  >/dev/null 2>&1
callgrind_annotate --inclusive=yes --tree=caller --threshold=100 "$OUT" 2>/dev/null | python3 "$(dirname "$0")/profile-shares.py"
rm -f "$OUT"
