#!/bin/bash
# Measures what a whole diagnosis costs beyond the pauses it must make, and
# the CPU share of the command-line poll loop, over several runs of
# `kov_diagnostic -c` on a simulated scenario (bench/diagnosis_timing.cpp,
# with the sleep and wait ledger bench/pause_ledger.cpp preloaded).
#
# Usage: scripts/measure_diagnosis.sh [build folder] [runs] [scenario] [--jetson] [diagnosis_timing options]
#   defaults: build, 5 runs, sim/scenarios/kov_pico_usb3.json, this machine's
#   host checks; --jetson runs them on the stand-in Jetson of
#   scripts/standin_jetson.sh (SDK, CUDA and AI libraries found: the SDK check
#   then makes its 3 s wait after the AI library's check)
#   e.g. scripts/measure_diagnosis.sh build 3 sim/scenarios/kov_pico_usb3.json --jetson --gaps 5
# Timings depend on the machine's load: on a shared machine repeat them, and
# read the "queued" column (time the worker waited for a core).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$root/build}"
runs="${2:-5}"
scenario="${3:-$root/sim/scenarios/kov_pico_usb3.json}"
shift $(($# < 3 ? $# : 3))
jetson=0
options=()
for option in "$@"; do
    if [ "$option" = "--jetson" ]; then jetson=1; else options+=("$option"); fi
done

cmake -S "$root" -B "$build" -DKOV_BUILD_BENCH=ON >/dev/null
cmake --build "$build" -j "$(nproc)" --target kov_diagnostic kov_pause_ledger diagnosis_timing
build="$(cd "$build" && pwd)"
if [ "$jetson" = 1 ]; then
    cmake --build "$build" -j "$(nproc)" --target kov_standins
    machine="$(mktemp -d)"
    trap 'rm -rf "$machine"' EXIT
    "$root/scripts/standin_jetson.sh" "$build" "$machine"
    # The tool inherits the stand-in machine's environment.
    # shellcheck source=/dev/null
    source "$machine/env"
fi

"$build/bench/diagnosis_timing" --binary "$build/kov_diagnostic" \
    --ledger "$build/bench/libkov_pause_ledger.so" --runs "$runs" --scenario "$scenario" ${options[@]+"${options[@]}"}
