#!/usr/bin/env bash
# Builds the fuzz targets with libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer and runs each for a bounded time:
#   talmem_config_fuzz  the configuration reader and writer, seeded with the
#                       sample device files;
#   talmem_inpool_fuzz  the in-pool allocator under random operations and
#                       header corruptions.
# Exits non-zero on any crash, leak, sanitizer report or broken invariant, and
# prints the executions per second of each target.
# FUZZ_SECONDS sets the time per target (default 30; `make fuzz-long` runs
# each for an hour).
set -euo pipefail

ROOT="$(cd "$(dirname "$0")/.." && pwd)"
OUT="$ROOT/build/fuzz"
SECONDS_TO_RUN="${FUZZ_SECONDS:-20}"
CXX_FUZZ="${CXX_FUZZ:-clang++}"
TRIPLET="$(gcc -dumpmachine 2>/dev/null || echo x86_64-linux-gnu)"
ANDROID_LIBDIR="/usr/lib/$TRIPLET/android"
FLAGS=(-std=c++17 -g -O1 -fno-omit-frame-pointer -fsanitize=fuzzer,address,undefined
       -fno-sanitize-recover=all -I"$ROOT/src" -I"$ROOT/include" -I"$ROOT/platform/include"
       -isystem /usr/include/android)
LIBS=(-L"$ANDROID_LIBDIR" -Wl,-rpath,"$ANDROID_LIBDIR" -llog)

build() {
  local name="$1"; shift
  echo "run-fuzz: building $OUT/$name"
  "$CXX_FUZZ" "${FLAGS[@]}" "$@" "${LIBS[@]}" -o "$OUT/$name"
}

# run NAME CORPUS [extra libFuzzer options and seed folders]
run() {
  local name="$1" corpus="$2"; shift 2
  local log="$OUT/$name.log"
  mkdir -p "$corpus"
  echo "run-fuzz: fuzzing $name for ${SECONDS_TO_RUN}s"
  # New inputs go to the first (build) corpus folder; seed folders stay untouched.
  if ! ASAN_OPTIONS="detect_leaks=1:abort_on_error=0" \
       UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" \
       "$OUT/$name" -max_total_time="$SECONDS_TO_RUN" -timeout=20 -rss_limit_mb=2048 \
       -print_final_stats=1 -artifact_prefix="$OUT/artifacts/$name-" \
       "$corpus" "$@" >"$log" 2>&1; then
    tail -n 60 "$log"
    echo "run-fuzz: $name FAILED (log: $log)"
    exit 1
  fi
  local execs rate
  execs="$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | awk '{s += $2} END {print s + 0}')"
  rate="$(grep -o 'stat::average_exec_per_sec: *[0-9]*' "$log" | awk '{s += $2} END {print s + 0}')"
  echo "run-fuzz: $name: $execs executions, $rate exec/s, no crash, leak or sanitizer report"
}

mkdir -p "$OUT/artifacts"
build talmem_config_fuzz "$ROOT/tests/fuzz/TalMemConfigFuzz.cpp" "$ROOT"/src/config/*.cpp \
  "$(ls "$ROOT"/src/*/QvaAlgoMemAllocatorManager.cpp)" \
  "$ROOT/platform/host/HostPaths.cpp" "$ROOT/platform/host/SecureC.cpp" -ltinyxml2
build talmem_inpool_fuzz "$ROOT/tests/fuzz/TalMemImplFuzz.cpp" "$ROOT"/src/inpool/*.cpp \
  "$ROOT/platform/host/SecureC.cpp" "$ROOT/platform/host/Properties.cpp"

run talmem_config_fuzz "$OUT/corpus" -max_len=16384 -dict="$ROOT/tests/fuzz/talmem_config.dict" \
  "$ROOT/samples/device/odm/etc/camera" "$ROOT/tests/fuzz/seeds"
run talmem_inpool_fuzz "$OUT/inpool-corpus" -max_len=768
