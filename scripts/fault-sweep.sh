#!/usr/bin/env bash
# The full fault sweep: every numbered call of each workload (every disk
# type, a password change of a chain) failed with an I/O error, a full
# disk or a short write, or crashed and replayed as power losses; and the
# kord program killed at every file-changing call of convert and passwd.
# Prints the figures (runs, data lost, unopenable, failed retries). CI runs
# a sample of the same tests. Builds build/release first.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake -S . -B build/release -G Ninja -DKORD_WERROR=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/release -j "$(nproc)" --target test_disk_FaultSweepTest test_tools_ToolFaultTest kord_tool kord_killshim

export KORD_FAULT_SWEEP=full
status=0
./build/release/tests/test_disk_FaultSweepTest 2>/dev/null | grep -E "calls,|FAILED|PASSED" || status=1
./build/release/tests/test_tools_ToolFaultTest 2>/dev/null | grep -E "^\[ +(OK|FAILED) +\]|PASSED" || status=1
exit $status
