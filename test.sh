#!/bin/bash
# Build and run every test. See --help.
set -u
cd "$(dirname "$0")" || exit 1
. tools/packages.sh
. tools/steps.sh

usage() {
  cat <<'TEXT'
usage: ./test.sh [--quick] [--suite NAME]... [--jobs N] [--no-rgw] [--no-install]

Installs what is missing (Debian 12, root or sudo), builds the presets release, asan and tsan, and runs the unit tests of the
two with sanitizers, the source checks, and the end-to-end tests: all of them with the release build against the development
store and a real Ceph RADOS Gateway, the faster ones with the asan build as well. At last the parsers are fuzzed for a while
(preset fuzz); an input that breaks one is kept. The last line says "N passed, N failed, N skipped";
the exit status is 0 only when something ran and nothing failed. Logs and JUnit files are in build/results.

  --quick       the release build alone, with its unit tests
  --suite NAME  only this suite: common, s3, module, server, devstore, client, layers, fuzz, lint or e2e (may be given more than once)
  --jobs N      so many compilers and unit tests at once (default: one per processor)
  --no-rgw      leave the RADOS Gateway out; its tests count as skipped
  --no-install  install nothing
TEXT
}

quick='' no_rgw='' install=1 suites=() jobs=$(nproc)
while [ $# -gt 0 ]; do
  case $1 in
    --quick) quick=1 ;;
    --no-rgw) no_rgw=1 ;;
    --no-install) install='' ;;
    --suite) suites+=("${2:?--suite needs a name}"); shift ;;
    --jobs) jobs=${2:?--jobs needs a number}; shift ;;
    --help|-h) usage; exit 0 ;;
    *) echo "test.sh: unknown option '$1'" >&2; usage >&2; exit 2 ;;
  esac
  shift
done
unit_suites=(common s3 module server devstore client layers fuzz)
for suite in "${suites[@]}"; do
  case " ${unit_suites[*]} lint e2e " in
    *" $suite "*) ;;
    *) echo "test.sh: no suite '$suite'" >&2; exit 2 ;;
  esac
done

# wanted SUITE: whether it is to be run.
wanted() {
  [ ${#suites[@]} -eq 0 ] || [[ " ${suites[*]} " == *" $1 "* ]]
}

# Ctrl-C and a termination reach what runs in the background too; those end their own servers and stores.
trap 'trap "" INT TERM; kill -TERM 0; wait; exit 130' INT TERM

results=$PWD/build/results
rm -rf "$results"
mkdir -p "$results"
files=()            # JUnit files, those of suites that did not come to write one included
extra_passed=0      # checks without a JUnit file
failures=()

# What the sanitizers print has to end the program: a report that only scrolls by is a bug that nobody sees.
export ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1

# The thread sanitizer of g++ 12 needs its fixed addresses free, which kernels with more address randomness do not promise.
fixed_addresses=()
setarch "$(uname -m)" -R true 2>/dev/null && fixed_addresses=(setarch "$(uname -m)" -R)

# check LOG TITLE COMMAND...: a step that counts as one test.
check() {
  local title=$2
  if step "$@"; then extra_passed=$((extra_passed + 1)); else failures+=("$title"); return 1; fi
}

# Everything that a build needs from the functions of this script, run by itself because setarch starts a new program.
build() {
  local preset=$1 prefix=()
  shift
  [ "$preset" != tsan ] || prefix=("${fixed_addresses[@]}")
  "${prefix[@]}" bash -c '. tools/steps.sh; configure_and_build "$@"' build "$preset" "$jobs" "$@"
}

# has_unit_tests PRESET: a whole run leaves out those of the release build, which would only repeat what the sanitizers see
# better and double the time to build.
has_unit_tests() {
  [ "$1" != release ] || [ -n "$quick" ]
}

# What is installed, what the checks of the layers look at, and the programs that end-to-end tests run besides.
product=(common/all s3/all server/all src/all client/all devstore/all bench/all zorvan_s3_tests)

# build_preset PRESET: everything, or what the wanted suites need. A build that fails is a failure, and the preset's tests are not run.
build_preset() {
  local suite targets=()
  for suite in "${suites[@]}"; do
    case $suite in
      lint) ;;
      e2e | layers | devstore) targets+=("${product[@]}") ;;
      *) ! has_unit_tests "$1" || targets+=("tests/$suite/all") ;;
    esac
  done
  if [ ${#suites[@]} -eq 0 ]; then
    has_unit_tests "$1" || targets=("${product[@]}")
    # The dev store is a tool of the tests, and the heaviest to compile.
    [ "$1" != tsan ] || targets=(tests/{common,s3,client,module,server}/all)
  fi
  [ ${#suites[@]} -eq 0 ] || [ ${#targets[@]} -gt 0 ] || return 0
  step "$results/build-$1.log" "build $1" build "$1" "${targets[@]}" && return 0
  failures+=("build $1")
  return 1
}

# unit_tests PRESET: the wanted unit suites that have tests.
unit_tests() {
  local preset=$1 suite xml prefix=()
  [ "$preset" != tsan ] || prefix=("${fixed_addresses[@]}")
  for suite in "${unit_suites[@]}"; do
    wanted "$suite" || continue
    # What the sanitizers add nothing to: commands over the sources, parsers on one thread; and the tests' own store.
    if [ "$suite" = layers ]; then
      [ "$preset" = release ] || continue
    else
      has_unit_tests "$preset" || continue
    fi
    [[ "$suite" = @(fuzz|devstore) ]] && [ "$preset" = tsan ] && continue
    [ -e "tests/$suite/CMakeLists.txt" ] && [ -e "build/$preset/tests/$suite/CTestTestfile.cmake" ] || continue
    # The dev store's tests are one program to ctest; asked directly they are counted one by one.
    if [ "$suite" = devstore ]; then
      xml=$results/devstore-$preset.xml
      step "$results/devstore-$preset.log" "devstore tests, $preset" "${prefix[@]}" timeout 900 \
        /usr/bin/python3 -m pytest tests/devstore -q -p no:cacheprovider --devstore-binary "build/$preset/bin/zorvan-devstore" \
        --junitxml "$xml"
    else
      xml=$results/$suite-$preset.xml
      step "$results/$suite-$preset.log" "$suite tests, $preset" "${prefix[@]}" timeout 1200 \
        ctest --test-dir "build/$preset/tests/$suite" -j "$jobs" --timeout 180 --output-on-failure --no-tests=error --output-junit "$xml"
    fi
    files+=("$xml")
  done
}

# end_to_end NAME PYTEST-OPTION...: one run of the end-to-end tests.
end_to_end() {
  local name=$1
  shift
  timeout 1500 /usr/bin/python3 -m pytest tests/e2e -p no:cacheprovider --junitxml "$results/$name.xml" "$@"
}

# With the dev store the tests mostly wait, so two halves of their files run at once, each with a store and a server of its own.
halves=(-n 2 --dist loadfile)

# both_stores: the two stores' runs side by side; the output of the one that failed is what is shown.
both_stores() {
  local pid status=0
  end_to_end e2e-devstore --store=devstore "${halves[@]}" >"$results/e2e-devstore.log" 2>&1 &
  pid=$!
  end_to_end e2e-rgw --store=rgw ${no_rgw:+--no-rgw} >"$results/e2e-rgw.log" 2>&1 || status=$?
  wait "$pid" || status=$?
  tail -n 30 "$results/e2e-devstore.log" "$results/e2e-rgw.log"
  return "$status"
}

summary() {
  local passed failed skipped names
  { read -r passed failed skipped; names=$(cat); } < <(/usr/bin/python3 tools/count_results.py "${files[@]}")
  passed=$((passed + extra_passed))
  failed=$((failed + ${#failures[@]}))
  echo
  for name in "${failures[@]}"; do echo "failed: $name"; done
  [ -z "$names" ] || sed 's/^/failed: /' <<<"$names"
  echo "$passed passed, $failed failed, $skipped skipped"
  [ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]
}

if [ -n "$install" ]; then
  groups=(build demo test lint)
  [ -n "$no_rgw" ] || groups+=(rgw)
  ensure_packages "${groups[@]}" || { echo "0 passed, 1 failed, 0 skipped"; exit 1; }
fi

if build_preset release; then
  unit_tests release
  if wanted e2e; then
    STEP_TAIL=70 step "$results/e2e.log" "end-to-end tests, release, both stores" both_stores
    files+=("$results/e2e-devstore.xml" "$results/e2e-rgw.xml")
  fi
fi
if wanted lint && [ -x tools/lint.sh ]; then
  check "$results/lint.log" "source checks" timeout 1200 tools/lint.sh
fi
if [ -z "$quick" ] && [ "${suites[*]}" != lint ] && [ "${suites[*]}" != layers ]; then
  if build_preset asan; then
    unit_tests asan
    if wanted e2e; then
      step "$results/e2e-asan.log" "end-to-end tests, asan" end_to_end e2e-asan --store=devstore "${halves[@]}" --build-dir=build/asan -m "not slow"
      files+=("$results/e2e-asan.xml")
    fi
  fi
  if [ "${suites[*]}" != e2e ]; then
    build_preset tsan && unit_tests tsan
  fi
  if wanted fuzz; then
    check "$results/build-fuzz.log" "build fuzz" build fuzz zorvan_fuzz &&
      check "$results/fuzz.log" "fuzzing" timeout 900 tools/fuzz.sh --jobs "$jobs" --keep "$results"
  fi
fi
summary
