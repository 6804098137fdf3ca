#!/usr/bin/env bash
# Installs, from Debian packages, whatever this machine lacks to build and test
# Arbor. Idempotent: a package already installed is left alone, and apt-get is
# not even started when nothing is missing. Runs apt-get as root (directly, or
# through sudo when invoked by another user).
set -euo pipefail

packages=(
  build-essential   # gcc/g++ 12, make
  cmake             # 3.25
  ninja-build
  dpkg-dev          # dpkg-shlibdeps: the .deb files' dependencies (scripts/package.sh)
  file              # CPack's DEB generator tells binaries from other files with it
  pkg-config
  libgtest-dev      # GoogleTest
  libgmock-dev
  libbenchmark-dev  # Google Benchmark (bench/ only)
  libssl-dev        # OpenSSL: digests, HMAC, TLS for the socket transport
  openssl           # the openssl command: throwaway certificates in tests
  iproute2          # ip netns: the presence tests' private network
  libasio-dev       # standalone Asio 1.22: the socket transport (transport/net)
  libgstreamer1.0-dev               # GStreamer core: the bridge in drivers/ (gst_*)
  libgstreamer-plugins-base1.0-dev  # gstreamer-app-1.0: appsrc and appsink
  gstreamer1.0-tools                # gst-launch-1.0, gst-inspect-1.0: trying pipelines by hand
  gstreamer1.0-plugins-base         # videotestsrc, appsrc, appsink
  gstreamer1.0-plugins-good         # matroskamux, mp4mux: containers a sink pipeline writes
  gstreamer1.0-plugins-bad          # h264parse
  gstreamer1.0-plugins-ugly         # x264enc
  gstreamer1.0-libav                # avdec_h264
  ffmpeg                            # ffprobe: the run script checks what a sink wrote
  libcli11-dev                      # CLI11: the command line of tools/arbor-peer
  nlohmann-json3-dev                # nlohmann-json: arbor-peer's control socket speaks JSON
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "setup: installing ${missing[*]}"
as_root=()
if [ "$(id -u)" -ne 0 ]; then
  as_root=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
