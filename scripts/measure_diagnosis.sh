#!/bin/bash
# Measures what a whole diagnosis costs beyond the pauses it must make, and
# the CPU share of the command-line poll loop, over several runs of
# `kov_diagnostic -c` on a simulated scenario (bench/diagnosis_timing.cpp,
# with the sleep and wait ledger bench/pause_ledger.cpp preloaded).
#
# Usage: scripts/measure_diagnosis.sh [build folder] [runs] [scenario] [more diagnosis_timing options]
#   defaults: build, 5 runs, sim/scenarios/kov_pico_usb3.json
#   e.g. scripts/measure_diagnosis.sh build 3 sim/scenarios/kov_pico_usb3.json --gaps 5
# Timings depend on the machine's load: on a shared machine repeat them, and
# read the "queued" column (time the worker waited for a core).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$root/build}"
runs="${2:-5}"
scenario="${3:-$root/sim/scenarios/kov_pico_usb3.json}"
shift $(($# < 3 ? $# : 3))

cmake -S "$root" -B "$build" -DKOV_BUILD_BENCH=ON >/dev/null
cmake --build "$build" -j "$(nproc)" --target kov_diagnostic kov_pause_ledger diagnosis_timing

"$build/bench/diagnosis_timing" --binary "$build/kov_diagnostic" \
    --ledger "$build/bench/libkov_pause_ledger.so" --runs "$runs" --scenario "$scenario" "$@"
