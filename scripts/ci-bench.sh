#!/usr/bin/env bash
# Keeps the benchmarks building and running: a Release build of orvun_bench
# and orvun_instructions with warnings as errors (with the Boost.Asio
# variants when Boost's headers are installed), then the CTest smoke run,
# every benchmark once with tiny counts, and its table. The numbers are
# printed, never judged; it fails only when the build or a run fails.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh cmake g++ libbenchmark-dev python3

dir=${ORVUN_BENCH_DIR:-build/bench}
rm -rf "$dir"
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release -DORVUN_BUILD_BENCHMARKS=ON -DORVUN_BUILD_TESTS=OFF \
    -DORVUN_BUILD_EXAMPLES=OFF -DORVUN_WARNINGS_AS_ERRORS=ON
cmake --build "$dir" -j "${JOBS:-$(nproc)}"
ctest --test-dir "$dir" --output-on-failure --no-tests=error
python3 scripts/bench-table.py "$dir/bench/smoke.json"
