#!/bin/bash
# Regenerates the screenshots of the graphical mode in docs/screenshots/ under
# a virtual X server, from the tool's own window and nodes running on
# simulated machines: a stand-in Jetson (scripts/standin_jetson.sh: SDK, CUDA,
# AI libraries, GMSL driver package) with a simulated camera.
#   splash.png                the splash
#   run_in_progress.png       a healthy KOV Pico run, the camera test working
#   finished_healthy.png      the same run at its end (all AI models optimised)
#   finished_with_errors.png  a KOV Pico losing 40 frames in the bandwidth run,
#                             the "Devices" row's messages open
#   model_selector.png        the model selector, three models optimised
# Usage: scripts/screenshots.sh [build folder]   (default: build)
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$root/build}"
out="$root/docs/screenshots"
scenarios="$root/sim/scenarios"

cmake -S "$root" -B "$build" >/dev/null
cmake --build "$build" -j "$(nproc)" --target gui_screenshots kov_diagnostic kov_standins
build="$(cd "$build" && pwd)"

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
mkdir -p "$out" "$work/home"

# <machine folder> <scenario or -> <picture set> [row]: one run of the
# screenshot tool on that machine, with a home folder of its own.
shoot() {
    local machine="$1" scenario="$2"
    shift 2
    (
        # shellcheck source=/dev/null
        source "$machine/env"
        export HOME="$work/home" XDG_CONFIG_HOME="$work/home/.config"
        if [ "$scenario" != "-" ]; then
            export KOV_SIMULATION="$scenarios/$scenario.json"
        fi
        xvfb-run -a -s "-screen 0 1280x1024x24" "$build/tests/gui/gui_screenshots" "$1" "$out" "${@:2}"
    )
}

# The healthy machine has every AI model optimised; the model selector's has none.
"$root/scripts/standin_jetson.sh" "$build" "$work/jetson"
(
    # shellcheck source=/dev/null
    source "$work/jetson/env"
    export HOME="$work/home"
    # argv[0] without option texts: the tool searches its own path too.
    exec -a kov_diagnostic "$build/kov_diagnostic" -aio >/dev/null
)
"$root/scripts/standin_jetson.sh" "$build" "$work/fresh"

shoot "$work/jetson" - splash
shoot "$work/jetson" kov_pico_usb3 healthy
shoot "$work/jetson" kov_pico_usb3_drops_40 errors Devices
shoot "$work/fresh" - models
echo "Screenshots in $out"
