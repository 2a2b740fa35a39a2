#!/usr/bin/env bash
# Keeps the benchmarks building and running: a Release build of orvun_bench
# (with the Boost.Asio peers when Boost's headers are installed), then every
# scenario once with tiny counts. The numbers are printed, never judged; the
# script fails only when the build or a run fails.
set -euo pipefail
cd "$(dirname "$0")/.."

dir=${ORVUN_BENCH_DIR:-build/bench}
rm -rf "$dir"
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release -DORVUN_BUILD_BENCHMARKS=ON -DORVUN_BUILD_TESTS=OFF \
    -DORVUN_BUILD_EXAMPLES=OFF -DORVUN_WARNINGS_AS_ERRORS=ON
cmake --build "$dir" --target orvun_bench -j "${JOBS:-$(nproc)}"
timeout 120 "$dir/bench/orvun_bench" --quick
