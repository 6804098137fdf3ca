#!/usr/bin/env bash
# Builds Arbor and runs the whole test suite through CTest three times: as a
# plain build, under AddressSanitizer and UndefinedBehaviorSanitizer, and under
# ThreadSanitizer (death tests excepted: they fork a threaded process, which
# ThreadSanitizer does not support).
# Installs missing Debian packages first. Any failure stops the script with a
# non-zero status.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

jobs=$(nproc 2>/dev/null || echo 2)

# run_suite <build-dir> "<ctest arguments>" <cmake arguments...>
run_suite() {
  local dir=$1 ctest_args=$2; shift 2
  echo "== ${dir}: configure $*"
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
  echo "== ${dir}: build"
  cmake --build "$dir" -j "$jobs"
  echo "== ${dir}: test"
  # shellcheck disable=SC2086
  (cd "$dir" && ctest -j "$jobs" --output-on-failure --timeout 120 $ctest_args)
}

run_suite build "" -DCMAKE_BUILD_TYPE=RelWithDebInfo
run_suite build-asan "" -DCMAKE_BUILD_TYPE=Debug -DARBOR_SANITIZE=address
run_suite build-tsan "-E DeathTest" -DCMAKE_BUILD_TYPE=Debug \
  -DARBOR_SANITIZE=thread
