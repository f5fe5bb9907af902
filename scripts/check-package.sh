#!/usr/bin/env bash
# Checks the Debian packages of a packaging build folder (make package) on
# this machine: installs the runtime and -dev packages with dpkg, checks that
# dpkg considers them installed, builds examples/ against the installed files
# through find_package and through pkg-config (default search paths only),
# runs both and the installed demo, then removes the packages again. Needs root (dpkg -i).
# Usage: check-package.sh <build/pkg>
set -euo pipefail

pkgdir="${1:?usage: check-package.sh <packaging build folder>}"
src="$(cd "$(dirname "$0")/.." && pwd)"
runtime=$(ls "$pkgdir"/libtalmemorypool-zoeis1_*.deb 2>/dev/null | head -1)
dev=$(ls "$pkgdir"/libtalmemorypool-zoeis-dev_*.deb 2>/dev/null | head -1)
[ -n "$runtime" ] && [ -n "$dev" ] || { echo "check-package: no packages in $pkgdir (run make package)" >&2; exit 2; }
[ "$(id -u)" -eq 0 ] || { echo "check-package: dpkg -i needs root" >&2; exit 2; }

work=$(mktemp -d "${TMPDIR:-/tmp}/talmem-package.XXXXXX")
cleanup() {
  dpkg -r libtalmemorypool-zoeis-dev libtalmemorypool-zoeis1 >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT

echo "check-package: declared dependencies"
dpkg-deb -f "$runtime" Package Version Depends
dpkg-deb -f "$dev" Package Version Depends

echo "check-package: dpkg -i $(basename "$runtime") $(basename "$dev")"
dpkg -i "$runtime" "$dev"
for p in libtalmemorypool-zoeis1 libtalmemorypool-zoeis-dev; do
  dpkg-query -W -f='${Status}\n' "$p" | grep -q "install ok installed" \
    || { echo "check-package: $p is not installed cleanly" >&2; exit 1; }
done
"$src/tests/exports/check_exports.sh" "$(dpkg -L libtalmemorypool-zoeis1 | grep '\.so\.1$')" \
  "$src/tests/exports/expected.txt"

cp -r /usr/share/talmemorypool_zoeis/samples/device "$work/device"
echo "check-package: find_package consumer"
cmake -S "$src/examples" -B "$work/cmake" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF >/dev/null
cmake --build "$work/cmake" >/dev/null
TALMEM_ROOT="$work/device" "$work/cmake/camera_node" 2>/dev/null

echo "check-package: pkg-config consumer"
mkdir -p "$work/pc"
make --no-print-directory -s -C "$src/examples" OUT="$work/pc"
TALMEM_ROOT="$work/device" "$work/pc/camera_node" 2>/dev/null
echo "check-package: installed tools run"
TALMEM_ROOT="$work/device" /usr/bin/talmem_demo >/dev/null 2>&1 \
  || { echo "check-package: /usr/bin/talmem_demo failed" >&2; exit 1; }
echo "check-package: both packages install, and both consumers build and run against them"
