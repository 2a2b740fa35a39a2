#!/usr/bin/env bash
# Builds and runs every test: once as built for use (preset dev), once under
# AddressSanitizer + UndefinedBehaviorSanitizer (asan) and once under
# ThreadSanitizer (tsan). Installs what is missing first (cmake, g++, make,
# GoogleTest, python3, and curl, ApacheBench, socat and nc for the example
# servers). Any failing test or sanitizer report makes it exit
# non-zero. The stress tests (CTest label "stress") run in all three, at
# ORVUN_STRESS_SCALE (default 1) in the plain build and at a fifth or a
# quarter of it under the slower sanitizers.
#
#   bash scripts/run-tests.sh           incremental builds in build/dev, build/asan, build/tsan
#   bash scripts/run-tests.sh --clean   the three rebuilt from scratch (or CLEAN=1)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh
parse_clean_flag "bash scripts/run-tests.sh [--clean]" "$@"
bash scripts/install-deps.sh cmake g++ make libgtest-dev libgmock-dev python3 curl apache2-utils socat netcat-openbsd
stress_scale=${ORVUN_STRESS_SCALE:-1}
scaled() { LC_ALL=C awk -v scale="$stress_scale" -v factor="$1" 'BEGIN { printf "%g", scale * factor }'; }

# The test presets set the sanitizers' options and fail when no test was found.
run_suite() {
    configure_preset "$1"
    build_preset "$1"
    ctest --preset "$1" -j "$jobs"
}

echo "== tests"
export ORVUN_STRESS_SCALE=$stress_scale
run_suite dev

echo "== tests under AddressSanitizer + UndefinedBehaviorSanitizer"
ORVUN_STRESS_SCALE=$(scaled 0.25)
run_suite asan

echo "== tests under ThreadSanitizer"
# The suppressions cover glibc internals only (see the file).
ORVUN_STRESS_SCALE=$(scaled 0.2)
run_suite tsan
