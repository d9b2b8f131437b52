#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test. Exits non-zero on any failure.
#   scripts/test.sh              Debug build in build/
#   scripts/test.sh --sanitize   ASan+UBSan build in build-asan/
#   scripts/test.sh --tsan       ThreadSanitizer build in build-tsan/: only the threaded suites
#                                (schedulers, servants, HTTP, JSON-RPC and the agent on loopback)
set -euo pipefail
cd "$(dirname "$0")/.."

build=build
cmake_args=(-G Ninja -DCMAKE_BUILD_TYPE=Debug)
targets=()
labels=""
case "${1:-}" in
  "") ;;
  --sanitize)
    build=build-asan
    cmake_args+=(-DBRIMLET_SANITIZE=ON)
    ;;
  --tsan)
    build=build-tsan
    # GCC warns that TSan does not model the atomic fences Asio uses; Asio hands work between
    # threads under mutexes, which TSan does model.
    tsan="-fsanitize=thread -fno-omit-frame-pointer -Wno-tsan"
    cmake_args=(-G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "-DCMAKE_C_FLAGS=$tsan"
                "-DCMAKE_CXX_FLAGS=$tsan" -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=thread
                -DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=thread
                -DCMAKE_MODULE_LINKER_FLAGS=-fsanitize=thread)
    # The scheduler, servant, HTTP and JSON-RPC binaries are labelled by their names; the agent's
    # suite (the whole system on loopback) is labelled "integration".
    targets=(task_test servant_test http_test jsonrpc_test integration_test)
    labels='^(task_test|servant_test|http_test|jsonrpc_test|integration)$'
    ;;
  *)
    echo "usage: scripts/test.sh [--sanitize | --tsan]" >&2
    exit 2
    ;;
esac

bash scripts/setup.sh
cmake -S . -B "$build" "${cmake_args[@]}"
if [ -z "$labels" ]; then
  cmake --build "$build" -j "$(nproc)"
  cd "$build"
  ctest --output-on-failure -j "$(nproc)" --timeout 600
  exit 0
fi

cmake --build "$build" -j "$(nproc)" --target "${targets[@]}"
# Reports of every process, the programs the tests start included, go to files: a race in a
# child fails the run even when the test itself passed.
reports="$PWD/$build/tsan-reports"
rm -rf "$reports"
mkdir -p "$reports"
export TSAN_OPTIONS="log_path=$reports/report log_exe_name=1 second_deadlock_stack=1 suppressions=$PWD/scripts/tsan.supp"
status=0
(cd "$build" && ctest --output-on-failure -j "$(nproc)" --timeout 1200 -L "$labels") || status=$?
if compgen -G "$reports/report*" >/dev/null; then
  cat "$reports"/report* >&2
  echo "ThreadSanitizer reports: $reports" >&2
  status=1
fi
exit "$status"
