#!/usr/bin/env bash
# Runs the libFuzzer targets by hand (not part of CI, which runs each target
# over deterministic mutations of its seeds): builds them with clang under
# AddressSanitizer and UndefinedBehaviorSanitizer in build/fuzz, starts each
# corpus from the target's seeds, and fuzzes each target for SECONDS.
#
#   scripts/fuzz.sh [SECONDS] [TARGET...]     (default: 1800, all targets)
#
# Corpora and findings (crash-*, leak-*, timeout-*, oom-*) stay in
# build/fuzz/runs/<target>/; each run's log is build/fuzz/runs/<target>.log.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-1800}
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(Descriptor SparseExtent Disk)

./scripts/setup.sh
CC=clang CXX=clang++ cmake -S . -B build/fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKORD_WERROR=OFF \
    -DKORD_SANITIZE=ON -DKORD_BUILD_FUZZERS=ON -DKORD_BUILD_TESTS=OFF -DKORD_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build build/fuzz -j 2

for target in "${targets[@]}"; do
    dir=build/fuzz/runs/$target
    mkdir -p "$dir/corpus"
    build/fuzz/fuzz/fuzz_${target}_seeds --write-seeds "$dir/corpus"
    # 64 MiB for one allocation: far above what any input here may cost.
    (cd "$dir" && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
        ../../fuzz/fuzz_$target corpus -max_total_time="$seconds" -max_len=1048576 -timeout=30 \
        -malloc_limit_mb=64 -rss_limit_mb=2048 -print_final_stats=1) >"$dir.log" 2>&1 || true
    echo "fuzz.sh: $target: $(grep -E '^(stat::number_of_executed_units|#[0-9]+ +DONE)' "$dir.log" | tr '\n' ' ')"
    ls "$dir" | grep -E '^(crash|leak|timeout|oom|slow-unit)-' && echo "fuzz.sh: $target: FINDINGS in $dir" || true
done
