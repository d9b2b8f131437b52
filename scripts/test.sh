#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test. Exits non-zero on any failure.
#   scripts/test.sh              Debug build in build/
#   scripts/test.sh --sanitize   ASan+UBSan build in build-asan/
set -euo pipefail
cd "$(dirname "$0")/.."

build=build
cmake_args=(-G Ninja -DCMAKE_BUILD_TYPE=Debug)
if [ "${1:-}" = "--sanitize" ]; then
  build=build-asan
  cmake_args+=(-DBRIMLET_SANITIZE=ON)
fi

bash scripts/setup.sh
cmake -S . -B "$build" "${cmake_args[@]}"
cmake --build "$build" -j "$(nproc)"
cd "$build"
ctest --output-on-failure -j "$(nproc)" --timeout 600
