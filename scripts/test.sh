#!/usr/bin/env bash
# Builds Arbor and runs the whole test suite twice through CTest: once as a
# plain build, once under AddressSanitizer and UndefinedBehaviorSanitizer.
# Installs missing Debian packages first. Any failure stops the script with a
# non-zero status.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

jobs=$(nproc 2>/dev/null || echo 2)

run_suite() {
  local dir=$1; shift
  echo "== ${dir}: configure $*"
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
  echo "== ${dir}: build"
  cmake --build "$dir" -j "$jobs"
  echo "== ${dir}: test"
  (cd "$dir" && ctest -j "$jobs" --output-on-failure --timeout 120)
}

run_suite build -DCMAKE_BUILD_TYPE=RelWithDebInfo
run_suite build-asan -DCMAKE_BUILD_TYPE=Debug -DARBOR_SANITIZE=address
