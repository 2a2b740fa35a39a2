#!/usr/bin/env bash
# Keeps the benchmarks building and running: a Release build (preset bench,
# warnings as errors; with the Boost.Asio variants when Boost's headers are
# installed), then the CTest smoke run, every benchmark once with tiny counts,
# and its table. The numbers are printed, never judged; it fails only when the
# build or a run fails. Installs nothing: it names what is missing.
# Incremental in build/bench; --clean or CLEAN=1 rebuilds from scratch.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh
parse_clean_flag "bash scripts/ci-bench.sh [--clean]" "$@"
bash scripts/install-deps.sh --check cmake g++ make libbenchmark-dev python3
bash scripts/install-deps.sh --check libboost-dev 2>/dev/null ||
    echo "ci-bench: libboost-dev is not installed; the Boost.Asio variants are left out"

configure_preset bench
build_preset bench
ctest --test-dir build/bench --output-on-failure --no-tests=error -R bench_smoke
python3 scripts/bench-table.py build/bench/bench/smoke.json
