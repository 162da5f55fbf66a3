#!/usr/bin/env bash
# Sets up the machine, builds everything and runs all tests, twice: an
# optimised build, and a debug build under AddressSanitizer and
# UndefinedBehaviorSanitizer. Compiler warnings are errors in both. The
# optimised build is laid out for /usr, as the Debian packages made from it
# (and checked by its tests) are.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup.sh

jobs=$(nproc)

run_suite() {
    local dir=$1
    shift
    cmake -S . -B "$dir" -G Ninja -DKORD_WERROR=ON "$@"
    cmake --build "$dir" -j "$jobs"
    ctest --test-dir "$dir" --output-on-failure -j "$jobs"
}

run_suite build/release -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    run_suite build/sanitize -DCMAKE_BUILD_TYPE=Debug -DKORD_SANITIZE=ON -DKORD_BUILD_BENCHMARKS=OFF
echo "test.sh: all tests passed (release and sanitizer builds)"
