#!/usr/bin/env bash
# Builds and runs the demo: TCP and UDP servers and clients on loopback,
# a short transcript, then the profiler's byte counts per thread and scope.
# Installs cmake, g++ and make first where they are missing (Debian/Ubuntu,
# as root or through sudo), and builds incrementally in build/release
# (--clean or CLEAN=1: from scratch).
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh
parse_clean_flag "bash scripts/demo.sh [--clean]" "$@"
if ! bash scripts/install-deps.sh cmake g++ make; then
    echo "demo.sh: could not install cmake, g++ and make with apt-get;" \
        "install them (CMake 3.25 or newer, a C++20 compiler) and run this again" >&2
    exit 1
fi
echo "== configuring and building the demo in build/release"
configure_preset release >/dev/null
build_preset release --target orvun-demo >/dev/null
echo "== running build/release/examples/orvun-demo"
echo
exec build/release/examples/orvun-demo
