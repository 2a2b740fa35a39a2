#!/usr/bin/env bash
# Counts user-space instructions per operation with callgrind (exact and
# repeatable, unlike timings on a shared host) and fails when one exceeds its
# budget in bench/instruction-budgets.txt by more than 5 %. Every count is
# printed beside its budget. Installs nothing: it names what is missing.
# Builds orvun_instructions in the bench preset (build/bench, incremental;
# --clean or CLEAN=1 rebuilds from scratch).
#
#   bash scripts/ci-instructions.sh [--clean]
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh
parse_clean_flag "bash scripts/ci-instructions.sh [--clean]" "$@"
bash scripts/install-deps.sh --check cmake g++ make valgrind

configure_preset bench >/dev/null
build_preset bench --target orvun_instructions >/dev/null
program=build/bench/bench/orvun_instructions

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
