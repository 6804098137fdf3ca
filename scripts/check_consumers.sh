#!/usr/bin/env bash
# Proves that Arbor reaches its users as installed files, the way a device
# maker builds against it: from an already built tree (argument: the build
# directory, default build), it
#   1. installs into a temporary prefix (cmake --install);
#   2. builds the example host shipped in that prefix out of tree, once with
#      pkg-config (its Makefile) and once with CMake (find_package(Arbor)),
#      and runs each build: on its own, and signed in to the test service
#      stand-in over loopback when the tree has it;
#   3. makes the Debian packages with CPack, unpacks them into a scratch root
#      (dpkg -x) and does step 2 again against that root.
# Ends with "consumers: OK" or "consumers: FAILED: <what>", exit 0 only for OK.
# Everything it makes is under one temporary directory, removed at the end,
# and any service stand-in it started is stopped, whatever happened.
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$(pwd)
build_dir=$(cd "${1:-build}" && pwd)
jobs=$(nproc 2>/dev/null || echo 2)

work=$(mktemp -d /tmp/arbor-consumers-XXXXXX)
service_pid=""
cleanup() {
  if [ -n "$service_pid" ]; then kill "$service_pid" 2>/dev/null || true; wait "$service_pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

fail() { echo "consumers: FAILED: $*"; exit 1; }

# run_host <label> <program> [env...]: runs the example host alone, then
# signed in to the service stand-in when there is one.
run_host() {
  local label=$1 program=$2; shift 2
  local out
  out=$(env "$@" timeout 30 "$program" 2>&1) || fail "$label: $program exited non-zero: $out"
  grep -q "^minimal_host: OK" <<<"$out" || fail "$label: no OK line from $program: $out"
  echo "consumers: $label: $(grep '^minimal_host: OK' <<<"$out")"
  if [ -n "$service_port" ]; then
    out=$(env "$@" timeout 30 "$program" --service "127.0.0.1:$service_port" --plain 2>&1) ||
      fail "$label: $program --service exited non-zero: $out"
    grep -q "^minimal_host: OK" <<<"$out" || fail "$label: no OK line from $program --service: $out"
    echo "consumers: $label, signed in: $(grep '^minimal_host: OK' <<<"$out")"
  fi
}

# build_and_run <label> <root> <libdir>: the example host under <root> (an
# install prefix), built both ways.
build_and_run() {
  local label=$1 root=$2 libdir=$3
  local example="$root/share/doc/arbor/examples/embed"
  [ -f "$example/minimal_host.c" ] || fail "$label: the example host is not installed at $example"

  local by_make="$work/$label-make"
  cp -r "$example" "$by_make"
  make -s -C "$by_make" PKG_CONFIG_PATH="$root/$libdir/pkgconfig" >"$work/$label-make.log" 2>&1 ||
    fail "$label: building with pkg-config failed (see $(cat "$work/$label-make.log"))"
  run_host "$label, pkg-config" "$by_make/minimal_host" LD_LIBRARY_PATH="$root/$libdir"

  local by_cmake="$work/$label-cmake"
  { cmake -S "$example" -B "$by_cmake" -G Ninja -DCMAKE_PREFIX_PATH="$root" &&
    cmake --build "$by_cmake" -j "$jobs"; } >"$work/$label-cmake.log" 2>&1 ||
    fail "$label: building with find_package(Arbor) failed: $(tail -20 "$work/$label-cmake.log")"
  # No LD_LIBRARY_PATH: CMake's imported targets give the build its run path.
  run_host "$label, CMake" "$by_cmake/minimal_host"
}

service_port=""
service="$build_dir/tests/process/arbor_test_service"
if [ -x "$service" ]; then
  # It reads commands until its standard input ends: a pipe that this script
  # holds open (read-write, so opening it does not wait) keeps it serving.
  # What it prints goes to a file, which never fills up.
  mkfifo "$work/service.in"
  exec {service_in}<>"$work/service.in"
  "$service" 0 <"$work/service.in" >"$work/service.log" 2>&1 &
  service_pid=$!
  for _ in $(seq 1 100); do
    service_port=$(sed -n 's/^listening \([0-9]*\)$/\1/p' "$work/service.log")
    [ -n "$service_port" ] && break
    kill -0 "$service_pid" 2>/dev/null || break
    sleep 0.1
  done
  [ -n "$service_port" ] || fail "the service stand-in did not start: $(cat "$work/service.log")"
fi

echo "consumers: installing $build_dir into a temporary prefix"
cmake --install "$build_dir" --prefix "$work/prefix" >"$work/install.log" 2>&1 ||
  fail "cmake --install: $(tail -5 "$work/install.log")"
libdir=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:PATH=//p' "$build_dir/CMakeCache.txt")
for file in "$work/prefix/$libdir/libarbor.so.0" "$work/prefix/include/arbor/version.h"; do
  [ -e "$file" ] || fail "cmake --install did not install $file"
done
# No installed program or library may look for libraries in this tree, and
# no pkg-config or CMake file may point into it.
while IFS= read -r file; do
  if readelf -d "$file" 2>/dev/null | grep -E 'RUNPATH|RPATH' | grep -qF -e "$build_dir" -e "$repo"; then
    fail "$file has a run path into the build tree: $(readelf -d "$file" | grep -E 'RUNPATH|RPATH')"
  fi
done < <(find "$work/prefix" -type f \( -name '*.so*' -o -path '*/bin/*' \))
if grep -rlF -e "$build_dir" -e "$repo" "$work/prefix/$libdir/pkgconfig" "$work/prefix/$libdir/cmake"; then
  fail "installed pkg-config or CMake files name the build tree"
fi
build_and_run prefix "$work/prefix" "$libdir"

echo "consumers: making the Debian packages"
(cd "$build_dir" && cpack -G DEB -B "$work/debs") >"$work/cpack.log" 2>&1 ||
  fail "cpack: $(grep -i error "$work/cpack.log" | head -5)"
for deb in "$work"/debs/*.deb; do dpkg -x "$deb" "$work/root"; done
echo "consumers: unpacked $(cd "$work/debs" && ls -1 *.deb | tr '\n' ' ')"
build_and_run deb "$work/root/usr" "$libdir"

echo "consumers: OK"
