#!/usr/bin/env bash
# Builds the benchmarks in Release (preset bench, incrementally in
# build/bench) and prints the
# table: the library against raw POSIX code and Boost.Asio, interleaved in one
# process. Loopback only; the run takes about two minutes on 2 cores, plus
# the build.
#
#   bash scripts/bench.sh            full counts
#   bash scripts/bench.sh --pin      the whole run on CPU 0 (taskset -c 0)
#   bash scripts/bench.sh --quick    tiny counts, one repetition
#   bash scripts/bench.sh --clean    rebuild from scratch first (or CLEAN=1)
#   bash scripts/bench.sh -- --only tcp_rtt,udp_rtt --reps 3   (orvun_bench options)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh

pin=0
args=()
while [ $# -gt 0 ]; do
    case "$1" in
        --pin) pin=1 ;;
        --quick) args+=(--quick) ;;
        --clean) CLEAN=1 ;;
        --) shift; args+=("$@"); break ;;
        *) echo "usage: bash scripts/bench.sh [--pin] [--quick] [--clean] [-- orvun_bench options]" >&2; exit 2 ;;
    esac
    shift
done

bash scripts/install-deps.sh cmake g++ make
# The Asio column needs Boost's headers; without them the build goes on and
# the table says so.
if ! dpkg -s libboost-dev >/dev/null 2>&1; then
    timeout 600 bash scripts/install-deps.sh libboost-dev ||
        echo "bench: libboost-dev could not be installed; going on without the Boost.Asio column"
fi

dir=build/bench
configure_preset bench >/dev/null
build_preset bench >/dev/null

echo "machine: $(lscpu | sed -n 's/^Model name: *//p'), $(nproc) CPUs, Linux $(uname -r)"
if [ "$pin" = 1 ]; then
    echo "pinned: taskset -c 0"
    exec taskset -c 0 "$dir/bench/orvun_bench" "${args[@]}"
fi
exec "$dir/bench/orvun_bench" "${args[@]}"
