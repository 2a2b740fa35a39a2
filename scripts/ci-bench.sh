#!/usr/bin/env bash
# Keeps the benchmarks building and running: a Release build of orvun_bench
# (preset bench; with the Boost.Asio peers when Boost's headers are
# installed), then every scenario once with tiny counts. The numbers are
# printed, never judged; the script fails only when the build or a run fails.
# Installs nothing: it names what is missing. Incremental in build/bench;
# --clean or CLEAN=1 rebuilds from scratch.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh
parse_clean_flag "bash scripts/ci-bench.sh [--clean]" "$@"
bash scripts/install-deps.sh --check cmake g++ make
bash scripts/install-deps.sh --check libboost-dev 2>/dev/null ||
    echo "ci-bench: libboost-dev is not installed; the Boost.Asio column is left out"

configure_preset bench
build_preset bench
timeout 120 build/bench/bench/orvun_bench --quick
