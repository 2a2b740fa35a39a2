#!/usr/bin/env bash
# Builds and runs the demo: TCP and UDP servers and clients on loopback,
# a short transcript, then the profiler's byte counts per thread and scope.
# Installs cmake, g++ and make first where they are missing (Debian/Ubuntu,
# as root or through sudo), and configures a fresh Release build in build/demo.
set -euo pipefail
cd "$(dirname "$0")/.."
if ! bash scripts/install-deps.sh cmake g++ make; then
    echo "demo.sh: could not install cmake, g++ and make with apt-get;" \
        "install them (CMake 3.25 or newer, a C++20 compiler) and run this again" >&2
    exit 1
fi
build=${DEMO_BUILD_DIR:-build/demo}
rm -rf "$build"
echo "== configuring and building the demo in $build"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DORVUN_BUILD_TESTS=OFF -DORVUN_BUILD_EXAMPLES=ON >/dev/null
cmake --build "$build" -j "${JOBS:-$(nproc)}" --target orvun-demo >/dev/null
echo "== running $build/examples/orvun-demo"
echo
exec "$build/examples/orvun-demo"
