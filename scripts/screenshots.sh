#!/bin/bash
# Regenerates the screenshots of the graphical mode in docs/screenshots/ under
# a virtual X server: the splash, a run in progress, a finished run with errors
# and one node's messages open, and the model selector (over the stand-in AI
# library, so that some models show as optimised).
# Usage: scripts/screenshots.sh [build folder]   (default: build)
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$root/build}"
out="$root/docs/screenshots"

cmake -S "$root" -B "$build" >/dev/null
cmake --build "$build" -j "$(nproc)" --target gui_screenshots kov_standins

# A throw-away machine root holding the stand-in AI library.
sysroot="$(mktemp -d)"
trap 'rm -rf "$sysroot"' EXIT
standins="$build/standins"
if [ -f "$standins/lib/libbh_ai.so" ]; then
    mkdir -p "$sysroot/usr/local/kov/lib"
    cp "$standins/lib/libbh_ai.so" "$sysroot/usr/local/kov/lib/"
fi

mkdir -p "$out"
KOV_SYSROOT="$sysroot" LD_LIBRARY_PATH="$standins/lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" \
    xvfb-run -a -s "-screen 0 1280x1024x24" "$build/tests/gui/gui_screenshots" "$out"
echo "Screenshots in $out"
