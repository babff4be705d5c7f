#!/bin/bash
# Prints which lines of src/ and s3/ their unit tests run: a table of lines, with the ones that never ran, and one of branches.
#
# usage: tools/coverage.sh [--jobs N] [--no-install] [FILTER]
#   --jobs N      so many compilers at once (default: one per processor)
#   --no-install  install nothing
#   FILTER        only the tests that this googletest filter names (default: all)
#
# Branches that only an exception takes are left out. What is not covered, and why, stands in CONTRIBUTING.md.
# Exit status 0: every test passed.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. tools/packages.sh
. tools/steps.sh

readonly build=build/coverage programs=(module_tests zorvan_s3_tests)
install=1 filter='*'
jobs=$(nproc)
while (($# > 0)); do
    case $1 in
        --jobs) jobs=${2:?--jobs needs a number}; shift ;;
        --no-install) install='' ;;
        -h | --help) sed -n '2,/^set/{/^#/s/^# \{0,1\}//p}' "$0"; exit 0 ;;
        -*) echo "coverage: unknown option $1" >&2; exit 2 ;;
        *) filter=$1 ;;
    esac
    shift
done
[[ -z $install ]] || ensure_packages build coverage

# What earlier runs counted goes, and then what the build counts when it asks the programs for their tests.
forget_counts() { find "$build" -name '*.gcda' -delete; }
mkdir -p "$build"
forget_counts
step "$build/coverage-build.log" "build coverage" configure_and_build coverage "$jobs" "${programs[@]}"
forget_counts
status=0
for program in "${programs[@]}"; do
    step "$build/$program.log" "$program" timeout 900 "$build/bin/$program" --gtest_filter="$filter" || status=1
done

counts=$build/coverage.json
gcovr --root . --filter src/ --filter s3/src/ --exclude-throw-branches --json "$counts" "$build"
gcovr --root . --add-tracefile "$counts" --txt
gcovr --root . --add-tracefile "$counts" --exclude-throw-branches --txt --branches
exit "$status"
