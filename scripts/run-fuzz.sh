#!/usr/bin/env bash
# Builds the libFuzzer targets (preset "fuzz", clang) and runs each one for a
# while on a scratch copy of its seed corpus, so the shipped seeds stay small.
#
#   scripts/run-fuzz.sh [SECONDS] [TARGET...]
#
# SECONDS defaults to 60 per target; TARGETs default to every fuzz/*_fuzz.cpp.
# Exits non-zero on the first crash, leak, sanitizer report or timeout; the
# reproducer is kept in the scratch directory that the failure message names.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-60}
shift || true
case "$seconds" in
  '' | *[!0-9]*) echo "run-fuzz: SECONDS must be a whole number, got '$seconds'" >&2; exit 2 ;;
esac

cd "$root"
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j2

targets=("$@")
if [ "${#targets[@]}" -eq 0 ]; then
  for src in fuzz/*_fuzz.cpp; do targets+=("$(basename "$src" .cpp)"); done
fi

# UBSan only reports by default; make every finding fatal so libFuzzer sees it.
export UBSAN_OPTIONS=halt_on_error=1:abort_on_error=1:print_stacktrace=1
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1

for target in "${targets[@]}"; do
  binary="build/fuzz/fuzz/$target"
  [ -x "$binary" ] || { echo "run-fuzz: no fuzz target $binary" >&2; exit 2; }
  work=$(mktemp -d "${TMPDIR:-/tmp}/tarn-fuzz-$target.XXXXXX")
  mkdir "$work/corpus" "$work/artifacts"
  if [ -d "fuzz/corpus/$target" ]; then cp -R "fuzz/corpus/$target/." "$work/corpus/"; fi
  echo "run-fuzz: $target for ${seconds}s in $work"
  if ! "$binary" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=4096 \
      -print_final_stats=1 -artifact_prefix="$work/artifacts/" "$work/corpus" >"$work/log" 2>&1; then
    tail -n 60 "$work/log" >&2
    echo "run-fuzz: $target FAILED; reproducer and log kept in $work" >&2
    exit 1
  fi
  grep -E '^(stat::number_of_executed_units|stat::peak_rss_mb|#[0-9]+ +DONE)' "$work/log" || true
  rm -rf "$work"
  echo "run-fuzz: $target passed"
done
