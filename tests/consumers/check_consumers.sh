#!/usr/bin/env bash
# Installs the built library into a temporary prefix and uses it from outside
# the tree as a camera node would: the installed library's SONAME and exported
# symbols, every installed header compiled on its own, then examples/ built
# once through find_package and once through pkg-config and run.
# Usage: check_consumers.sh <build dir> <source dir> <c++ compiler>
set -euo pipefail

build="$1"
src="$2"
cxx="$3"
work=$(mktemp -d "${TMPDIR:-/tmp}/talmem-consumers.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"

step() { echo "check_consumers: $*"; }
fail() { echo "check_consumers: FAILED: $*" >&2; exit 1; }

step "install into $prefix"
cmake --install "$build" --prefix "$prefix" >"$work/install.log" || { cat "$work/install.log"; fail "install"; }

lib="$prefix/lib/libtalmemorypool_zoeis.so.1"
[ -f "$lib" ] || fail "no $lib"
soname=$(readelf -d "$lib" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = "libtalmemorypool_zoeis.so.1" ] || fail "SONAME is '$soname'"
[ "$(readlink "$prefix/lib/libtalmemorypool_zoeis.so")" = "libtalmemorypool_zoeis.so.1" ] \
  || fail "the development link does not point at the SONAME"
"$src/tests/exports/check_exports.sh" "$lib" "$src/tests/exports/expected.txt"

step "the package version file accepts 1.x and refuses 2.0"
{
  echo "include(\"$prefix/lib/cmake/talmemorypool_zoeis/talmemorypool_zoeisConfigVersion.cmake\")"
  echo 'message("${PACKAGE_VERSION} ${PACKAGE_VERSION_COMPATIBLE}")'
} >"$work/version.cmake"
for want in 1.0:TRUE 1.0.0:TRUE 2.0:FALSE; do
  asked="${want%%:*}"
  got=$(cmake -DPACKAGE_FIND_VERSION="$asked" -DPACKAGE_FIND_VERSION_MAJOR="${asked%%.*}" \
          -P "$work/version.cmake" 2>&1) || fail "version file: $got"
  [ "$got" = "1.0.0 ${want##*:}" ] || fail "version file asked for $asked answers '$got'"
done

step "each installed header compiles on its own"
for h in "$prefix"/include/talmem/*.h; do
  "$cxx" -std=c++17 -fsyntax-only -Wall -Werror -I"$prefix/include" -isystem /usr/include/android \
    -x c++ - <<<"#include <talmem/$(basename "$h")>" \
    || fail "installed header $(basename "$h") needs more than the installed headers"
done

# Each run gets its own device root, copied from the installed samples, so the
# learnt-peak file the library writes stays in the temporary folder.
run_node() {
  local exe="$1" root="$work/device-$2"
  cp -r "$prefix/share/talmemorypool_zoeis/samples/device" "$root"
  # The pkg-config file finds its prefix from its own folder, so the path the
  # loader reports may run through lib/pkgconfig/../..: compare canonical paths.
  local loaded
  loaded="$(ldd "$exe" | awk '/libtalmemorypool_zoeis.so.1 =>/ {print $3}')"
  [ -n "$loaded" ] && [ "$(realpath "$loaded")" = "$(realpath "$prefix/lib/libtalmemorypool_zoeis.so.1")" ] \
    || fail "$exe does not load the installed library: $(ldd "$exe" | grep talmem)"
  TALMEM_ROOT="$root" "$exe" 2>"$work/$2.log" || { cat "$work/$2.log" >&2; fail "$exe exited $?"; }
}

step "find_package consumer"
cmake -S "$src/examples" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$cxx" \
  -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF >"$work/cmake.log" || { cat "$work/cmake.log"; fail "configure"; }
grep -q "talmemorypool_zoeis_DIR:PATH=$prefix/" "$work/cmake/CMakeCache.txt" \
  || fail "find_package did not take the installed package"
cmake --build "$work/cmake" >"$work/cmake-build.log" || { cat "$work/cmake-build.log"; fail "build"; }
run_node "$work/cmake/camera_node" cmake

step "pkg-config consumer"
mkdir -p "$work/pc"
make --no-print-directory -C "$src/examples" CXX="$cxx" OUT="$work/pc" \
  PKG_CONFIG_PATH="$prefix/lib/pkgconfig" >"$work/pc-build.log" || { cat "$work/pc-build.log"; fail "make"; }
run_node "$work/pc/camera_node" pc
step "both consumers built, linked the installed library and ran"
