#!/usr/bin/env bash
# Configures fresh build directories, builds and runs every test: once as
# built for use, once under AddressSanitizer + UndefinedBehaviorSanitizer and
# once under ThreadSanitizer. Any failing test or sanitizer report makes it
# exit non-zero. The stress tests (CTest label "stress") run in all three, at
# ORVUN_STRESS_SCALE (default 1) in the plain build and at a fifth or a
# quarter of it under the slower sanitizers.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh cmake g++ libgtest-dev libgmock-dev
jobs=${JOBS:-$(nproc)}
stress_scale=${ORVUN_STRESS_SCALE:-1}
scaled() { LC_ALL=C awk -v scale="$stress_scale" -v factor="$1" 'BEGIN { printf "%g", scale * factor }'; }

run_suite() {
    local dir=$1
    shift
    rm -rf "$dir"
    cmake -S . -B "$dir" -DORVUN_WARNINGS_AS_ERRORS=ON "$@"
    cmake --build "$dir" -j "$jobs"
    ctest --test-dir "$dir" --output-on-failure -j "$jobs"
}

echo "== tests"
export ORVUN_STRESS_SCALE=$stress_scale
run_suite build/test -DCMAKE_BUILD_TYPE=RelWithDebInfo

echo "== tests under AddressSanitizer + UndefinedBehaviorSanitizer"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
ORVUN_STRESS_SCALE=$(scaled 0.25)
run_suite build/asan -DCMAKE_BUILD_TYPE=Debug -DORVUN_SANITIZE=address,undefined

echo "== tests under ThreadSanitizer"
# The suppressions cover glibc internals only (see the file).
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/tests/tsan.supp
ORVUN_STRESS_SCALE=$(scaled 0.2)
run_suite build/tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORVUN_SANITIZE=thread
