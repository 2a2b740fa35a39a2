#!/usr/bin/env bash
# Configures fresh build directories, builds and runs every test: once as
# built for use, once under AddressSanitizer + UndefinedBehaviorSanitizer.
# Any failing test or sanitizer report makes it exit non-zero.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh cmake g++ libgtest-dev libgmock-dev
jobs=${JOBS:-$(nproc)}

run_suite() {
    local dir=$1
    shift
    rm -rf "$dir"
    cmake -S . -B "$dir" -DORVUN_WARNINGS_AS_ERRORS=ON "$@"
    cmake --build "$dir" -j "$jobs"
    ctest --test-dir "$dir" --output-on-failure -j "$jobs"
}

echo "== tests"
run_suite build/test -DCMAKE_BUILD_TYPE=RelWithDebInfo

echo "== tests under AddressSanitizer + UndefinedBehaviorSanitizer"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
run_suite build/asan -DCMAKE_BUILD_TYPE=Debug -DORVUN_SANITIZE=address,undefined
