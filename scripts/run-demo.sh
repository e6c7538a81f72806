#!/usr/bin/env bash
# The main job on a shipped default: installs what is missing, builds the amd64
# preset and runs the demo over the shipped example register map.
set -eu
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset amd64 >/dev/null
cmake --build --preset amd64 -j "${JOBS:-2}" --target regmap_demo
map=examples/maps/demo_chip.csv
echo "== register map $map"
build/amd64/examples/regmap_demo "$map" scratch global_control 0x8
