#!/usr/bin/env bash
# Builds Arbor and runs the example host. Installs missing Debian packages
# first. Arguments are passed to the example host.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc 2>/dev/null || echo 2)" --target arbor_example_host
exec ./build/examples/arbor_example_host "$@"
