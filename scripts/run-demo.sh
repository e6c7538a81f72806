#!/usr/bin/env bash
# The main job on a shipped default: installs what is missing, builds the tarnreg
# command (amd64 preset) and drives the shipped example register map through the
# mock transport: write a register, read it back, list the map, dump every
# register, look an address up.
set -eu
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset amd64 >/dev/null
cmake --build --preset amd64 -j "${JOBS:-2}" --target tarnreg
tarnreg=build/amd64/tools/tarnreg
map=examples/maps/demo_chip.csv

# A private mock register file: the demo neither reads nor rewrites the shared
# default one that agents running the mock transport use.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mock=(--map "$map" --mock --mock-file "$work/registers.csv")

show() {
  echo "\$ tarnreg $*"
  "$tarnreg" "$@"
  echo
}

echo "== register map $map, mock transport"
show "${mock[@]}" write scratch 0x12345678
show "${mock[@]}" read scratch
show "${mock[@]}" --json read scratch
show --map "$map" list
show "${mock[@]}" dump
show --map "$map" lookup 0x8
