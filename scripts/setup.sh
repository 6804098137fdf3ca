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
  pkg-config
  libgtest-dev      # GoogleTest
  libgmock-dev
  libbenchmark-dev  # Google Benchmark (bench/ only)
  libssl-dev        # OpenSSL: digests, HMAC, TLS for the socket transport
  openssl           # the openssl command: throwaway certificates in tests
  iproute2          # ip netns: the presence tests' private network
  libasio-dev       # standalone Asio 1.22: the socket transport (transport/net)
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
