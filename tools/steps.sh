# Progress of the scripts at the root: one line a step, with a clock while it runs. To be sourced by bash scripts.
# shellcheck shell=bash

# step LOG TITLE COMMAND...: runs the command with its output in the file LOG, shows the title, what Ninja or pytest last said
# about its progress (on a terminal) and the seconds it took. On failure it shows the end of LOG. Returns the command's status.
step() {
  local log=$1 title=$2 begun=$SECONDS status=0 pid line
  shift 2
  mkdir -p "$(dirname "$log")"
  if [ -t 1 ]; then
    "$@" >"$log" 2>&1 </dev/null &
    pid=$!
    while kill -0 "$pid" 2>/dev/null; do
      line=$(tail -c 400 "$log" 2>/dev/null | tr '\r' '\n' | grep -oE '^\[[0-9]+/[0-9]+\]|\[ *[0-9]+%\]|^ *[0-9]+/[0-9]+ Test' | tail -n 1)
      printf '\r\033[K  ... %s %s %d s' "$title" "$line" $((SECONDS - begun))
      sleep 0.5
    done
    wait "$pid" || status=$?
    printf '\r\033[K'
  else
    printf '  ... %s\n' "$title"
    "$@" >"$log" 2>&1 </dev/null || status=$?
  fi
  if [ "$status" -eq 0 ]; then
    printf '  ok  %s (%d s)\n' "$title" $((SECONDS - begun))
  else
    printf 'FAIL  %s (status %d, %d s), the end of %s:\n' "$title" "$status" $((SECONDS - begun)) "$log"
    tail -n "${STEP_TAIL:-40}" "$log" | sed 's/^/      /'
  fi
  return "$status"
}

# configure_and_build PRESET JOBS [TARGET...]: the preset's build folder, everything in it or the given targets.
configure_and_build() {
  local preset=$1 jobs=$2 cache=()
  shift 2
  command -v ccache >/dev/null && cache=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  command -v ld.lld >/dev/null && cache+=(-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld -DCMAKE_SHARED_LINKER_FLAGS=-fuse-ld=lld
    -DCMAKE_MODULE_LINKER_FLAGS=-fuse-ld=lld)
  cmake --preset "$preset" "${cache[@]}" && cmake --build --preset "$preset" -j "$jobs" ${1:+--target "$@"}
}
