#!/usr/bin/env bash
# Runs the fuzz targets built in <build>/tests/fuzz, one after the other, one
# process each (the machines are shared: no -jobs, no -workers).
#
#   run_fuzz.sh campaign <build> <seconds> [target...]
#       Each target for <seconds> (or FUZZ_RUNS executions when that is set)
#       on a working corpus <build>/fuzz-corpus/<name>, seeded from
#       tests/fuzz/corpus/<name>. New crashing inputs are left in
#       <build>/fuzz-crashes/<name>/ for triage; the exit status is non-zero
#       when there are any.
#   run_fuzz.sh regress <build> <seconds> [target...]
#       The check of `make test`: every input kept under
#       tests/fuzz/crashes/<name>/ runs once, then the target runs for
#       <seconds> over its seed corpus (new inputs go to a temporary folder).
#       Any crash, hang or sanitizer report fails.
set -euo pipefail

mode=${1:?mode: campaign or regress}
build=${2:?build folder}
seconds=${3:?seconds per target}
shift 3

here=$(cd "$(dirname "$0")" && pwd)
bin="$build/tests/fuzz"
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
    for src in "$here"/fuzz_*.cpp; do
        name=$(basename "$src" .cpp)
        targets+=("${name#fuzz_}")
    done
fi

# A leak found by the leak checker is a finding too; a unit taking more than
# 10 s is a hang.
common=(-timeout=10 -rss_limit_mb=2560 -print_final_stats=1)
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1}
export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=$here/lsan.supp:print_suppressions=0}

dict_of() {
    local dict="$here/dict/$1.dict"
    if [ -f "$dict" ]; then
        echo "-dict=$dict"
    fi
}

status=0
for name in "${targets[@]}"; do
    exe="$bin/fuzz_$name"
    if [ ! -x "$exe" ]; then
        echo "fuzz: $exe is not built" >&2
        exit 2
    fi
    seeds="$here/corpus/$name"
    mkdir -p "$seeds"
    case "$mode" in
        campaign)
            corpus="$build/fuzz-corpus/$name"
            crashes="$build/fuzz-crashes/$name"
            mkdir -p "$corpus" "$crashes"
            limit=(-max_total_time="$seconds")
            what="$seconds s"
            if [ -n "${FUZZ_RUNS:-}" ]; then
                limit=(-runs="$FUZZ_RUNS")
                what="$FUZZ_RUNS runs"
            fi
            echo "== fuzz_$name: $what"
            if ! "$exe" "${common[@]}" "${limit[@]}" $(dict_of "$name") -artifact_prefix="$crashes/" \
                "$corpus" "$seeds" >"$build/fuzz-$name.log" 2>&1; then
                echo "   FAILED: see $build/fuzz-$name.log and $crashes/" >&2
                status=1
            fi
            grep -E "^(stat::number_of_executed_units|stat::peak_rss_mb)|^Done " "$build/fuzz-$name.log" || true
            echo "   corpus: $(find "$corpus" -type f | wc -l) inputs"
            ;;
        regress)
            kept="$here/crashes/$name"
            if [ -d "$kept" ] && [ -n "$(ls -A "$kept")" ]; then
                echo "== fuzz_$name: $(ls "$kept" | wc -l) kept crash inputs"
                if ! "$exe" "${common[@]}" "$kept"/* >"$build/fuzz-$name-regress.log" 2>&1; then
                    echo "   FAILED on a kept crash input: see $build/fuzz-$name-regress.log" >&2
                    status=1
                    continue
                fi
            fi
            scratch=$(mktemp -d)
            echo "== fuzz_$name: $seconds s over $(find "$seeds" -type f | wc -l) seeds"
            if ! "$exe" "${common[@]}" -max_total_time="$seconds" $(dict_of "$name") \
                -artifact_prefix="$build/fuzz-$name-" "$scratch" "$seeds" >"$build/fuzz-$name.log" 2>&1; then
                echo "   FAILED: see $build/fuzz-$name.log" >&2
                status=1
            fi
            rm -rf "$scratch"
            ;;
        *)
            echo "unknown mode $mode" >&2
            exit 2
            ;;
    esac
done
exit $status
