#!/usr/bin/env bash
# Builds Arbor and runs the whole test suite through CTest three times: as a
# plain build, under AddressSanitizer and UndefinedBehaviorSanitizer, and under
# ThreadSanitizer (death tests excepted: they fork a threaded process, which
# ThreadSanitizer does not support). After the plain suite, each benchmark
# runs once briefly, and the plain build is installed and packaged and an
# example host is built against both (scripts/check_consumers.sh).
# Installs missing Debian packages first. Every suite runs even when an
# earlier one failed; the script ends with one line "N passed, N failed"
# (a build that fails counts as one failed test) and exits non-zero when
# anything failed.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

jobs=$(nproc 2>/dev/null || echo 2)
passed=0
failed=0

# run_suite <build-dir> "<ctest arguments>" <cmake arguments...>
run_suite() {
  local dir=$1 ctest_args=$2; shift 2
  echo "== ${dir}: configure $*"
  if ! cmake -S . -B "$dir" -G Ninja "$@" >/dev/null ||
     ! { echo "== ${dir}: build"; cmake --build "$dir" -j "$jobs"; }; then
    echo "== ${dir}: configuring or building failed; see the errors above"
    failed=$((failed + 1))
    return
  fi
  echo "== ${dir}: test"
  local log="$dir/ctest-summary.log"
  # shellcheck disable=SC2086
  (cd "$dir" && ctest -j "$jobs" --output-on-failure --timeout 120 \
     $ctest_args) | tee "$log" || true
  # "100% tests passed, 0 tests failed out of 143"
  local line total bad
  line=$(grep -E 'tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" |
         tail -1 || true)
  if [ -z "$line" ]; then
    echo "== ${dir}: ctest reported no result"
    failed=$((failed + 1))
    return
  fi
  total=$(sed -E 's/.* out of ([0-9]+).*/\1/' <<<"$line")
  bad=$(sed -E 's/.*tests passed, ([0-9]+) tests? failed.*/\1/' <<<"$line")
  passed=$((passed + total - bad))
  failed=$((failed + bad))
}

run_suite build "" -DCMAKE_BUILD_TYPE=RelWithDebInfo
# Benchmarks never pass or fail on their figures; a brief run of each only
# proves that they still build and run.
echo "== benchmarks: a brief run of each (scripts/bench.sh --smoke)"
if bash scripts/bench.sh --smoke --build-dir build >/dev/null; then
  passed=$((passed + 1))
else
  echo "== benchmarks: a benchmark did not run; see scripts/bench.sh --smoke"
  failed=$((failed + 1))
fi
# What a device maker gets: install, pkg-config, the CMake package and the
# Debian packages, each used to build and run the example host out of tree.
echo "== consumers: the installed tree and the .deb files (scripts/check_consumers.sh)"
if bash scripts/check_consumers.sh build; then
  passed=$((passed + 1))
else
  failed=$((failed + 1))
fi
run_suite build-asan "" -DCMAKE_BUILD_TYPE=Debug -DARBOR_SANITIZE=address
run_suite build-tsan "-E DeathTest" -DCMAKE_BUILD_TYPE=Debug \
  -DARBOR_SANITIZE=thread

echo "${passed} passed, ${failed} failed"
[ "$failed" -eq 0 ]
