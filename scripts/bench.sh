#!/usr/bin/env bash
# Builds a Release tree (build-release/) and runs every benchmark program (bin/*_bench), each of
# which prints its table and writes its numbers to bench/results/ (kept out of git).
# Exits non-zero when a benchmark fails; the others still run.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
# What backup_bench compares against, beside the build's own packages.
if ! command -v restic >/dev/null; then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -qq && $sudo apt-get install -y -qq --no-install-recommends restic
fi
cmake -S . -B build-release -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build-release --target benchmarks -j "$(nproc)"

status=0
for bench in build-release/bin/*_bench; do
  printf '\n== %s\n' "$(basename "$bench")"
  "$bench" || { echo "$(basename "$bench") failed (exit status $?)" >&2; status=1; }
done
exit $status
