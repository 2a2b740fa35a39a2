#!/usr/bin/env bash
# Runs clang-tidy with the checks of .clang-tidy over the library sources
# (net/, cpu/, filesystem/, with their headers) and the examples. Any finding
# makes it exit non-zero.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh cmake g++ make clang-tidy
build=${TIDY_BUILD_DIR:-build/tidy}
jobs=${JOBS:-$(nproc)}

# Only the compile database is needed; tests stay out (they need GoogleTest).
cmake -S . -B "$build" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON -DORVUN_BUILD_TESTS=OFF -DORVUN_BUILD_EXAMPLES=ON \
    >/dev/null

sources=(net/*.cpp cpu/*.cpp filesystem/*.cpp examples/*.cpp)
echo "== clang-tidy over ${sources[*]}"
log=$(mktemp)
trap 'rm -f "$log"' EXIT
status=0
printf '%s\n' "${sources[@]}" | xargs -P "$jobs" -n 1 clang-tidy -p "$build" --quiet >"$log" 2>/dev/null ||
    status=$?
if [ "$status" -ne 0 ] || grep -qE ': (warning|error):' "$log"; then
    cat "$log"
    echo "ci-tidy: clang-tidy reported findings" >&2
    exit 1
fi
echo "ci-tidy: no findings"
