#!/usr/bin/env bash
# Installs each architecture's build into a temporary prefix and checks that an outside
# program needs nothing but the installed include directory, -ltarnregfile and fmt (and Boost's
# header-only containers, from the default include directory):
#  - every installed header compiles on its own with -I<prefix>/include alone, none reaches
#    the kernel's <linux/i2c.h>, and those that hold a platform type only by reference do
#    not bring in its header (the table below);
#  - the consumer (examples/consumer), which uses each exported family, is built through
#    find_package(TarnRegFile), through pkg-config and by hand with just -I, -L, -ltarnregfile
#    and -lfmt, and each build runs.
set -eu
# Public header, and a platform header it only forward-declares from.
forward_declared=(
  "TarnRegFile/LogicalChip.h TarnRegFile/platform/ShmEntityManager.h"
  "TarnRegFile/TransportDescriptor.h TarnRegFile/platform/PciDov.h"
  "TarnRegFile/PciTransportMethodImpl.h TarnRegFile/platform/PciDov.h"
  "TarnRegFile/SystemStatusShm.h TarnRegFile/platform/ShmWatch.h"
)
cd "$(dirname "$0")/.."
root=$(pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

for preset in amd64 i386; do
  prefix="$work/$preset/prefix"
  cmake --install "build/$preset" --prefix "$prefix" >/dev/null
  toolchain=()
  m32=()
  libarch=x86_64-linux-gnu
  if [ "$preset" = i386 ]; then
    toolchain=(-DCMAKE_TOOLCHAIN_FILE="$root/cmake/i386.cmake")
    m32=(-m32)
    libarch=i386-linux-gnu
  fi
  echo "-- $preset: every installed header on its own"
  include="$prefix/include"
  [ ! -e "$include/TarnRegFile/platform/ShmTableLayout.h" ] || { echo "table internals are installed"; exit 1; }
  for header in $(cd "$include" && find TarnRegFile -name '*.h' | sort); do
    printf '#include <%s>\n' "$header" |
      g++-12 "${m32[@]}" -std=c++20 -fsyntax-only -H -I"$include" -x c++ - 2>"$work/deps" ||
      { cat "$work/deps"; echo "$header does not compile with the installed include directory alone"; exit 1; }
    if grep -q 'linux/i2c\.h' "$work/deps"; then
      echo "$header reaches <linux/i2c.h>"
      exit 1
    fi
    for pair in "${forward_declared[@]}"; do
      read -r holder held <<<"$pair"
      if [ "$header" = "$holder" ] && grep -q "$held" "$work/deps"; then
        echo "$header brings in $held, whose types it holds only by reference"
        exit 1
      fi
    done
  done

  echo "-- $preset: find_package consumer"
  cmake -S examples/consumer -B "$work/$preset/cmake-consumer" -G Ninja -DCMAKE_CXX_COMPILER=g++-12 \
    -DCMAKE_PREFIX_PATH="$prefix" "${toolchain[@]}" >/dev/null
  cmake --build "$work/$preset/cmake-consumer" >/dev/null
  LD_LIBRARY_PATH="$prefix/lib" "$work/$preset/cmake-consumer/consumer" examples/maps/demo_chip.csv

  echo "-- $preset: pkg-config consumer"
  libdir=$(ls -d "$prefix"/lib* | head -1)
  flags=$(PKG_CONFIG_LIBDIR="$libdir/pkgconfig:/usr/lib/$libarch/pkgconfig:/usr/share/pkgconfig" \
    pkg-config --cflags --libs tarnregfile)
  # shellcheck disable=SC2086
  g++-12 "${m32[@]}" -o "$work/$preset/pc-consumer" examples/consumer/consumer.cpp $flags
  LD_LIBRARY_PATH="$libdir" "$work/$preset/pc-consumer" examples/maps/demo_chip.csv

  echo "-- $preset: consumer with the include directory, -ltarnregfile and fmt only"
  g++-12 "${m32[@]}" -std=c++20 -o "$work/$preset/bare-consumer" examples/consumer/consumer.cpp \
    -I"$prefix/include" -L"$libdir" -ltarnregfile -lfmt
  LD_LIBRARY_PATH="$libdir" "$work/$preset/bare-consumer" examples/maps/demo_chip.csv
  file "$work/$preset/pc-consumer" | grep -q "$([ "$preset" = i386 ] && echo 'ELF 32-bit' || echo 'ELF 64-bit')"
done
echo "install test: both architectures OK"
