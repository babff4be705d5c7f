#!/bin/bash
# Checks the C and C++ sources: their format always, and with --tidy what clang-tidy finds in the product.
#
# usage: tools/lint.sh [--tidy] [--build DIR] [--jobs N] [FILE...]
#   --tidy       also run clang-tidy over the sources of common, s3, server, src, devstore and client
#   --build DIR  the build whose compile_commands.json says how they are compiled (default: build/release)
#   --jobs N     how many at a time (default: one per processor)
#   FILE...      only these tracked files
#
# A source that was clean is not looked at again until it, a header of the house, its compile command, a .clang-tidy
# or the tool changes: stamps are kept in DIR/tidy. Exit status 0: no findings.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

readonly format=clang-format-19 tidy=clang-tidy-19
build=build/release
jobs=$(nproc)
with_tidy=false
files=()

die() {
    echo "lint: $*" >&2
    exit 2
}

while (($# > 0)); do
    case $1 in
        --tidy) with_tidy=true ;;
        --build) build=${2:?--build needs a folder}; shift ;;
        --jobs) jobs=${2:?--jobs needs a number}; shift ;;
        -h | --help) sed -n '2,/^set/{/^#/s/^# \{0,1\}//p}' "$0"; exit 0 ;;
        -*) die "unknown option $1" ;;
        *) files+=("$1") ;;
    esac
    shift
done

command -v "$format" >/dev/null || die "$format is not installed"

# Tracked files that exist; a file that somebody has just deleted is no finding.
tracked() {
    local file
    git ls-files -z -- "$@" | while IFS= read -r -d '' file; do
        [[ -f $file ]] && printf '%s\0' "$file"
    done || true
}

status=0

mapfile -d '' -t sources < <(
    if ((${#files[@]} > 0)); then tracked "${files[@]}"; else tracked '*.c' '*.cpp' '*.h' '*.hpp'; fi |
        grep -zE '\.(c|cpp|h|hpp)$' || true)
echo "lint: format of ${#sources[@]} files"
if ((${#sources[@]} > 0)); then
    printf '%s\0' "${sources[@]}" | xargs -0 -n 40 -P "$jobs" "$format" --dry-run -Werror --style=file || status=1
fi

# Runs clang-tidy over one source unless its stamp says that it was clean. Findings go to standard output in one piece.
tidy_one() {
    local source=$1 command stamp output
    command=$(grep -F -m 1 "$PWD/$source"$'\t' "$LINT_STAMPS/commands" || true)
    if [[ -z $command ]]; then
        echo "$source: not in $LINT_COMMANDS"
        return 1
    fi
    stamp=$LINT_STAMPS/$({ echo "$LINT_COMMON $command"; cat "$source"; } | sha256sum | cut -d' ' -f1)
    [[ -e $stamp ]] && return 0
    if output=$("$LINT_TIDY" --quiet --extra-arg=-Wno-unknown-warning-option -p "$(dirname "$LINT_COMMANDS")" "$source" 2>&1); then
        : >"$stamp"
    else
        printf '%s\n' "$output" | grep -vE '^[0-9]+ warnings? (generated|treated as errors?)|^Suppressed|^Use -header-filter'
        return 1
    fi
}

if $with_tidy; then
    command -v "$tidy" >/dev/null || die "$tidy is not installed"
    [[ -f $build/compile_commands.json ]] || die "no $build/compile_commands.json: configure that build first"
    mapfile -d '' -t sources < <(
        printf '%s\0' "${sources[@]}" | grep -zE '^(common|s3|server|src|devstore|client)/.*\.(c|cpp)$' || true)
    echo "lint: clang-tidy over ${#sources[@]} sources"
    LINT_COMMANDS=$(realpath "$build/compile_commands.json")
    LINT_STAMPS=$(dirname "$LINT_COMMANDS")/tidy
    LINT_TIDY=$tidy
    LINT_COMMON=$({ "$tidy" --version; tracked '*.clang-tidy' '*.h' '*.hpp' | xargs -0 cat; } | sha256sum)
    mkdir -p "$LINT_STAMPS"
    python3 - "$LINT_COMMANDS" >"$LINT_STAMPS/commands" <<'END'
import json, sys
for entry in json.load(open(sys.argv[1], encoding="utf-8")):
    print(entry["file"], entry["command"], sep="\t")
END
    export LINT_COMMANDS LINT_STAMPS LINT_TIDY LINT_COMMON
    export -f tidy_one
    if ((${#sources[@]} > 0)); then
        printf '%s\0' "${sources[@]}" | xargs -0 -n 1 -P "$jobs" bash -c 'tidy_one "$1"' tidy || status=1
    fi
fi

if ((status == 0)); then echo "lint: clean"; else echo "lint: findings above"; fi
exit "$status"
