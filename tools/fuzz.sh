#!/bin/bash
# Runs the libFuzzer targets of tests/fuzz (preset fuzz, target zorvan_fuzz) for a while, from their corpus.
#
# usage: tools/fuzz.sh [--build DIR] [--seconds N] [--runs N] [--jobs N] [--keep DIR] [TARGET...]
#   --build DIR   the build with the programs (default: build/fuzz)
#   --seconds N   how long each target runs at most (default: 10)
#   --runs N      inputs of each target at most (default: 100000), so that a fast machine repeats what a slow one did
#   --jobs N      how many at a time (default: one per processor)
#   --keep DIR    where the inputs that broke something go, and the logs (default: build/results)
#   TARGET...     only these (default: every folder of tests/fuzz/corpus)
#
# The seed is fixed and the corpus is not written to. To find more, run a program by itself with a folder of its own in
# front of the corpus; what it finds belongs into the corpus, under a name that says what it is.
# Exit status 0: nothing broke.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

build=build/fuzz seconds=10 runs=100000 keep=build/results targets=()
jobs=$(nproc)
while (($# > 0)); do
    case $1 in
        --build) build=${2:?--build needs a folder}; shift ;;
        --seconds) seconds=${2:?--seconds needs a number}; shift ;;
        --runs) runs=${2:?--runs needs a number}; shift ;;
        --jobs) jobs=${2:?--jobs needs a number}; shift ;;
        --keep) keep=${2:?--keep needs a folder}; shift ;;
        -h | --help) sed -n '2,/^set/{/^#/s/^# \{0,1\}//p}' "$0"; exit 0 ;;
        -*) echo "fuzz: unknown option $1" >&2; exit 2 ;;
        *) targets+=("$1") ;;
    esac
    shift
done
if ((${#targets[@]} == 0)); then
    for folder in tests/fuzz/corpus/*/; do targets+=("$(basename "$folder")"); done
fi
mkdir -p "$keep"

run_target() {
    local target=$1 log=$FUZZ_KEEP/fuzz-$1.log
    if "$FUZZ_BUILD/bin/fuzz_$target" -seed=1 -runs="$FUZZ_RUNS" -max_total_time="$FUZZ_SECONDS" -timeout=20 -rss_limit_mb=2048 -verbosity=0 \
        -print_final_stats=1 -artifact_prefix="$FUZZ_KEEP/fuzz-$target-" "$FUZZ_SCRATCH/$target" "tests/fuzz/corpus/$target" \
        >"$log" 2>&1; then
        echo "ok  $target: $(grep -oP 'number_of_executed_units: *\K.*' "$log") inputs"
    else
        echo "FAIL $target, see $log:"
        tail -n 30 "$log"
        return 1
    fi
}

FUZZ_SCRATCH=$(mktemp -d)
trap 'rm -rf "$FUZZ_SCRATCH"' EXIT
for target in "${targets[@]}"; do mkdir "$FUZZ_SCRATCH/$target"; done
export FUZZ_BUILD=$build FUZZ_SECONDS=$seconds FUZZ_RUNS=$runs FUZZ_KEEP=$keep FUZZ_SCRATCH
export -f run_target
printf '%s\0' "${targets[@]}" | xargs -0 -n 1 -P "$jobs" bash -c 'run_target "$1"' fuzz
