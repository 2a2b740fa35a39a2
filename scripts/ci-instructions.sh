#!/usr/bin/env bash
# Counts user-space instructions per operation with callgrind (exact and
# repeatable, unlike timings on a shared host) and fails when one exceeds its
# budget in bench/instruction-budgets.txt by more than 5 %. Every count is
# printed beside its budget. Without valgrind it only says so, unless asked to
# install it (--install, as CI does).
#
#   bash scripts/ci-instructions.sh [--install]
set -euo pipefail
cd "$(dirname "$0")/.."

if [ "${1:-}" = --install ]; then
    bash scripts/install-deps.sh cmake g++ valgrind
fi
if ! command -v valgrind >/dev/null || [ ! -f /usr/include/valgrind/callgrind.h ]; then
    echo "instructions: valgrind is not installed; no counts (bash scripts/ci-instructions.sh --install)"
    exit 0
fi

dir=${ORVUN_INSTRUCTIONS_DIR:-build/instructions}
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release -DORVUN_BUILD_BENCHMARKS=ON -DORVUN_BUILD_TESTS=OFF \
    -DORVUN_BUILD_EXAMPLES=OFF -DORVUN_WARNINGS_AS_ERRORS=ON >/dev/null
cmake --build "$dir" --target orvun_instructions -j "${JOBS:-$(nproc)}" >/dev/null
program=$dir/bench/orvun_instructions

out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
failed=0
printf '%-14s %10s %10s\n' operation count budget
# Budget lines: operation, budget, thread to count (1: the caller), repeats.
while read -r name budget thread repeats; do
    case "$name" in '' | '#'*) continue ;; esac
    valgrind --tool=callgrind --instr-atstart=no --separate-threads=yes \
        --callgrind-out-file="$out/$name" "$program" "$name" "$repeats" >"$out/$name.log" 2>&1 ||
        { cat "$out/$name.log"; exit 1; }
    total=$(sed -n 's/^totals: //p' "$out/$name-0$thread")
    count=$(( (total + repeats / 2) / repeats ))
    verdict=""
    if [ $(( count * 100 )) -gt $(( budget * 105 )) ]; then
        verdict="  OVER BUDGET by more than 5 %"
        failed=1
    fi
    printf '%-14s %10d %10d%s\n' "$name" "$count" "$budget" "$verdict"
done <bench/instruction-budgets.txt
exit $failed
