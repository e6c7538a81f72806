#!/usr/bin/env bash
# Installs everything the build and the tests need on a fresh Debian 12 machine (run as root).
# Idempotent: packages already present are left alone. Only Debian's archive is used.
set -u

need_i386=0
dpkg --print-foreign-architectures | grep -qx i386 || need_i386=1
if [ "$need_i386" = 1 ]; then
  dpkg --add-architecture i386
fi

packages=(
  build-essential cmake ninja-build pkg-config g++-12 g++-multilib
  libfmt-dev libfmt-dev:i386
  libgtest-dev libgtest-dev:i386 libgmock-dev libgmock-dev:i386 googletest
  libbenchmark-dev libbenchmark-dev:i386
  libcli11-dev nlohmann-json3-dev libboost1.81-dev libabsl-dev libabsl-dev:i386
  clang-14 libclang-rt-14-dev
  qemu-system-x86 linux-image-amd64 busybox-static cpio
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if [ "${#missing[@]}" -gt 0 ]; then
  echo "install-deps: installing ${missing[*]}"
  # A mirror index in mid-sync makes 'update' exit non-zero while every package
  # still installs, so its status is not trusted; the installs are checked below.
  DEBIAN_FRONTEND=noninteractive apt-get update -q || echo "install-deps: apt-get update reported an error; continuing"
  DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}" \
    || echo "install-deps: apt-get install reported an error; checking what is installed"
fi

failed=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || failed+=("$p")
done
if [ "${#failed[@]}" -gt 0 ]; then
  echo "install-deps: FAILED to install: ${failed[*]}" >&2
  exit 1
fi
echo "install-deps: all build and test dependencies are present"
