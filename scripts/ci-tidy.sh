#!/usr/bin/env bash
# Runs clang-tidy with the checks of .clang-tidy over the library sources
# (net/, cpu/, filesystem/, with their headers) and the examples. Any finding
# makes it exit non-zero. Installs nothing: it names what is missing.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh
parse_clean_flag "bash scripts/ci-tidy.sh [--clean]" "$@"
bash scripts/install-deps.sh --check cmake g++ make clang-tidy

# Only the compile database of the dev preset is needed, no build.
configure_preset dev >/dev/null

sources=(net/*.cpp cpu/*.cpp filesystem/*.cpp examples/*.cpp)
echo "== clang-tidy over ${sources[*]}"
log=$(mktemp)
trap 'rm -f "$log"' EXIT
status=0
printf '%s\n' "${sources[@]}" | xargs -P "$jobs" -n 1 clang-tidy -p build/dev --quiet >"$log" 2>/dev/null ||
    status=$?
if [ "$status" -ne 0 ] || grep -qE ': (warning|error):' "$log"; then
    cat "$log"
    echo "ci-tidy: clang-tidy reported findings" >&2
    exit 1
fi
echo "ci-tidy: no findings"
