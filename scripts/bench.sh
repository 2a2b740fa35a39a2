#!/usr/bin/env bash
# Builds the benchmarks in Release (preset bench, incrementally in
# build/bench) and prints the ratio table:
# the library against raw POSIX code and Boost.Asio, every repetition of
# every variant in random order (Google Benchmark). Loopback only; two to three
# minutes on 2 cores, plus the build. The results stay in
# build/bench-results/<2cpus|pinned>.json; scripts/bench-table.py prints a
# table of one or more of them.
#
#   bash scripts/bench.sh            2 CPUs
#   bash scripts/bench.sh --pin      the whole run on CPU 0 (taskset -c 0)
#   bash scripts/bench.sh --quick    tiny counts, one repetition
#   bash scripts/bench.sh --clean    rebuild from scratch first (or CLEAN=1)
#   bash scripts/bench.sh -- --benchmark_filter='^tcp_rtt/'   (orvun_bench options)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh

pin=0
run=(--benchmark_repetitions=30 --benchmark_min_time=0.01)
args=()
while [ $# -gt 0 ]; do
    case "$1" in
        --pin) pin=1 ;;
        --quick) run=(--benchmark_repetitions=1 --benchmark_min_time=0.002) ;;
        --clean) CLEAN=1 ;;
        --) shift; args+=("$@"); break ;;
        *) echo "usage: bash scripts/bench.sh [--pin] [--quick] [--clean] [-- orvun_bench options]" >&2; exit 2 ;;
    esac
    shift
done

bash scripts/install-deps.sh cmake g++ make libbenchmark-dev python3
# The Asio variants need Boost's headers; without them the build goes on and
# the table says so.
if ! dpkg -s libboost-dev >/dev/null 2>&1; then
    timeout 600 bash scripts/install-deps.sh libboost-dev ||
        echo "bench: libboost-dev could not be installed; going on without the Boost.Asio variants"
fi

dir=build/bench
configure_preset bench >/dev/null
build_preset bench >/dev/null

mkdir -p build/bench-results
out=build/bench-results/$([ "$pin" = 1 ] && echo pinned || echo 2cpus).json
prefix=()
[ "$pin" = 1 ] && prefix=(taskset -c 0)
echo "machine: $(lscpu | sed -n 's/^Model name: *//p'), $(nproc) CPUs, Linux $(uname -r)$([ "$pin" = 1 ] && echo ', pinned to CPU 0')"
"${prefix[@]}" "$dir/bench/orvun_bench" "${run[@]}" --benchmark_enable_random_interleaving=true \
    --benchmark_display_aggregates_only=true --benchmark_out="$out" --benchmark_out_format=json "${args[@]}"
echo
python3 scripts/bench-table.py "$out"
