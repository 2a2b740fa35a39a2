#!/usr/bin/env bash
# Builds the fuzz targets with clang (libFuzzer + AddressSanitizer +
# UndefinedBehaviorSanitizer) and runs each one for a bounded time, starting
# from its committed seed corpus. Exits non-zero when any target crashes,
# fails one of its checks, leaks, hangs or runs out of memory. Installs
# nothing: it names what is missing. Builds incrementally with the preset fuzz
# (build/fuzz; --clean or CLEAN=1 rebuilds from scratch).
#
#   FUZZ_SECONDS   time per target (default 45; raise it for longer local runs)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh
parse_clean_flag "bash scripts/ci-reliability.sh [--clean]" "$@"
bash scripts/install-deps.sh --check cmake make clang libclang-rt-14-dev

seconds=${FUZZ_SECONDS:-45}
dir=build/fuzz
targets=(fuzz_address fuzz_stream fuzz_profiler fuzz_http_request)

configure_preset fuzz
build_preset fuzz

passed=0
failed=0
total_runs=0
for target in "${targets[@]}"; do
    # New inputs go to the build directory; the committed seeds stay as they are.
    work="$dir/corpus/$target"
    artifacts="$dir/artifacts/$target"
    mkdir -p "$work" "$artifacts"
    log="$dir/$target.log"
    echo "== fuzzing $target for ${seconds}s"
    status=0
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
        "$dir/fuzz/$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="$artifacts/" "$work" "fuzz/corpus/$target" >"$log" 2>&1 || status=$?
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
    runs=${runs:-0}
    total_runs=$((total_runs + runs))
    if [ "$status" -eq 0 ]; then
        passed=$((passed + 1))
        echo "$target: $runs inputs, no failure, corpus $(find "$work" -type f | wc -l) files"
    else
        failed=$((failed + 1))
        echo "$target: FAILED (exit $status) after $runs inputs; the input is in $artifacts/"
        tail -n 60 "$log"
    fi
done

echo "fuzz inputs tried: $total_runs"
echo "fuzz: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
