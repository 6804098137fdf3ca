#!/usr/bin/env bash
# Builds Arbor's Debian packages: libarbor0 (the runtime libraries),
# libarbor-dev (headers, pkg-config files, CMake package, examples) and
# arbor-tools (arbor-peer). Installs missing Debian packages first, builds in
# Release under build-package/ for the /usr prefix, and leaves the .deb files
# in build-package/packages/. Install them with
#   sudo apt install ./build-package/packages/*.deb
set -euo pipefail
cd "$(dirname "$0")/.."

build_dir=${ARBOR_PACKAGE_DIR:-build-package}
jobs=$(nproc 2>/dev/null || echo 2)

bash scripts/setup.sh
echo "package: configuring $build_dir (Release, prefix /usr)"
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_INSTALL_PREFIX=/usr -DARBOR_BUILD_TESTS=OFF -DARBOR_BUILD_BENCH=OFF >/dev/null
echo "package: building"
cmake --build "$build_dir" -j "$jobs"
rm -rf "$build_dir/packages"
echo "package: making the .deb files"
if ! (cd "$build_dir" && cpack -G DEB -B packages >packages.log 2>&1); then
  echo "package: cpack failed; its output is in $build_dir/packages.log"
  exit 1
fi
echo "package: made"
ls -1 "$build_dir"/packages/*.deb
echo "package: install them with: sudo apt install $(ls "$build_dir"/packages/*.deb | sed 's|^|./|' | tr '\n' ' ')"
