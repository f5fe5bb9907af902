#!/usr/bin/env bash
# Installs every Debian package the build, the tests and the armhf run need.
# Idempotent: does nothing when everything is already present.
set -euo pipefail

HOST_PKGS="build-essential cmake pkg-config android-libutils-dev android-liblog-dev \
android-libcutils-dev libtinyxml2-dev libgtest-dev libgmock-dev libbenchmark-dev \
clang libclang-rt-14-dev binutils \
libcli11-dev nlohmann-json3-dev gnuplot-nox"
ARM_PKGS="g++-arm-linux-gnueabihf qemu-user android-libutils-dev:armhf \
android-liblog-dev:armhf android-libcutils-dev:armhf libtinyxml2-dev:armhf \
libgtest-dev:armhf libgmock-dev:armhf"

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi

missing() {
  local out=""
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || out="$out $p"
  done
  echo "$out"
}

if ! dpkg --print-foreign-architectures | grep -qx armhf; then
  $SUDO dpkg --add-architecture armhf
  NEED_UPDATE=1
fi

todo=$(missing $HOST_PKGS $ARM_PKGS)
if [ -n "$todo" ]; then
  # A mirror in mid-sync makes update fail on one index; the rest still serves.
  $SUDO apt-get update -q || echo "install-deps: apt-get update reported errors, continuing"
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -q --no-install-recommends $todo
fi

# libbacktrace of the armhf libutils dlopens p7zip's 7z.so: unpack it into a
# private overlay used as the qemu-arm sysroot addition.
OVERLAY="${ARM_OVERLAY:-$(cd "$(dirname "$0")/.." && pwd)/build/armhf-overlay}"
if [ ! -e "$OVERLAY/usr/lib/p7zip/7z.so" ]; then
  mkdir -p "$OVERLAY" "$OVERLAY.dl"
  (cd "$OVERLAY.dl" && apt-get -o APT::Sandbox::User=root download p7zip-full:armhf >/dev/null)
  dpkg -x "$OVERLAY.dl"/p7zip-full_*_armhf.deb "$OVERLAY"
  rm -rf "$OVERLAY.dl"
fi
