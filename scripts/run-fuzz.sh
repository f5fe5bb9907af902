#!/usr/bin/env bash
# Builds the configuration fuzz target with libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer, and runs it for a bounded time seeded with the
# sample device files. Exits non-zero on any crash, leak, sanitizer report or
# broken invariant. FUZZ_SECONDS overrides the run time (default 60).
set -euo pipefail

ROOT="$(cd "$(dirname "$0")/.." && pwd)"
OUT="$ROOT/build/fuzz"
SECONDS_TO_RUN="${FUZZ_SECONDS:-60}"
CXX_FUZZ="${CXX_FUZZ:-clang++}"
TRIPLET="$(gcc -dumpmachine 2>/dev/null || echo x86_64-linux-gnu)"
ANDROID_LIBDIR="/usr/lib/$TRIPLET/android"

mkdir -p "$OUT/corpus" "$OUT/artifacts"

echo "run-fuzz: building $OUT/talmem_config_fuzz"
"$CXX_FUZZ" -std=c++17 -g -O1 -fno-omit-frame-pointer \
  -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=all \
  -I"$ROOT/src" -I"$ROOT/include" -I"$ROOT/platform/include" -isystem /usr/include/android \
  "$ROOT"/tests/fuzz/*.cpp "$ROOT"/src/config/*.cpp \
  "$ROOT/src/descriptor/QvaAlgoMemAllocatorManager.cpp" \
  "$ROOT/platform/host/HostPaths.cpp" "$ROOT/platform/host/SecureC.cpp" \
  -ltinyxml2 -L"$ANDROID_LIBDIR" -Wl,-rpath,"$ANDROID_LIBDIR" -llog \
  -o "$OUT/talmem_config_fuzz"

echo "run-fuzz: fuzzing the configuration reader and writer for ${SECONDS_TO_RUN}s"
# New inputs go to the first (build) corpus folder; the seed folders stay untouched.
ASAN_OPTIONS="detect_leaks=1:abort_on_error=0" \
UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" \
"$OUT/talmem_config_fuzz" \
  -max_total_time="$SECONDS_TO_RUN" -max_len=16384 -timeout=20 -rss_limit_mb=2048 \
  -print_final_stats=1 -dict="$ROOT/tests/fuzz/talmem_config.dict" \
  -artifact_prefix="$OUT/artifacts/" \
  "$OUT/corpus" "$ROOT/samples/device/odm/etc/camera" "$ROOT/tests/fuzz/seeds"
echo "run-fuzz: no crash, leak or sanitizer report"
