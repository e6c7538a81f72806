#!/usr/bin/env bash
# Installs what is missing, builds both architectures (and the sanitizer and
# fuzzing builds) and runs every test. Exit status 0 only when everything passed.
#
#   scripts/test-all.sh            # everything
#   FUZZ_SECONDS=10 scripts/test-all.sh
set -u
cd "$(dirname "$0")/.."

jobs=${JOBS:-2}
fuzz_seconds=${FUZZ_SECONDS:-60}
passed=0
failed=0
failures=()

step() {  # step NAME COMMAND...
  local name=$1
  shift
  echo
  echo "=== $name"
  if "$@"; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
    failures+=("$name")
    echo "=== FAILED: $name"
  fi
}

bash scripts/install-deps.sh || { echo "dependency installation failed" >&2; exit 1; }

for preset in amd64 i386; do
  step "configure $preset" cmake --preset "$preset"
  step "build $preset" cmake --build --preset "$preset" -j "$jobs"
done
# Both builds exist before any test runs: cross-architecture tests use the other build's helpers.
for preset in amd64 i386; do
  step "tests $preset" ctest --preset "$preset" -j "$jobs" --no-tests=error
done

step "configure asan" cmake --preset asan
step "build asan" cmake --build --preset asan -j "$jobs"
# The VM tier boots a kernel per run; its sanitizer build adds nothing the two plain runs do not cover.
step "tests asan" ctest --preset asan -j "$jobs" -LE vm --no-tests=error

step "install and use from outside (amd64, i386)" bash scripts/test-install.sh
step "fuzz (${fuzz_seconds}s per target)" bash scripts/run-fuzz.sh "$fuzz_seconds"

echo
if [ "$failed" -gt 0 ]; then
  printf 'failed step: %s\n' "${failures[@]}"
fi
echo "steps: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
