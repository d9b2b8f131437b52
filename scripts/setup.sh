#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need. Safe to run again:
# it only calls apt-get when something is missing.
set -euo pipefail

packages=(
  build-essential cmake ninja-build ccache pkg-config clang libclang-rt-dev
  libace-dev libboost-dev libboost-system-dev libboost-thread-dev
  nlohmann-json3-dev libyajl-dev libssl-dev libcli11-dev
  libzstd-dev liblz4-dev zlib1g-dev libxxhash-dev uuid-dev libsqlite3-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  apache2 apache2-utils curl openssl python3
  zstd lz4
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
