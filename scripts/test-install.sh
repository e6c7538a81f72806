#!/usr/bin/env bash
# Installs each architecture's build into a temporary prefix and builds a program
# outside the tree against it twice: through find_package(TarnRegFile) and through
# pkg-config. Both programs must load a shipped register map.
set -eu
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
  file "$work/$preset/pc-consumer" | grep -q "$([ "$preset" = i386 ] && echo 'ELF 32-bit' || echo 'ELF 64-bit')"
done
echo "install test: both architectures OK"
