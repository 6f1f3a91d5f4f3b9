#!/usr/bin/env bash
# Fuzzing at scale (not run by CI): every libFuzzer target for a number of
# executions, starting from the kept seed corpus under fuzz/corpus/, with a
# time cap for the targets that touch the file system and run slowly. Prints
# one line per target: executions, executions a second, and whether it found
# a crash (the reproducer is left as build-fuzz/<target>-crash-*).
#
#   bash bench/fuzz.sh [RUNS] [MAX_SECONDS] [JOBS]
#     RUNS         executions per target (default 10000000)
#     MAX_SECONDS  cap per target (default 3600)
#     JOBS         targets at once (default: the number of cores)
#   TAVIK_FUZZ_ONLY="fuzz_job fuzz_wire" bash bench/fuzz.sh 100000   # some targets only
set -euo pipefail
cd "$(dirname "$0")/.."
runs=${1:-10000000}
cap=${2:-3600}
jobs=${3:-$(nproc)}
bash tools/deps.sh
CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DTAVIK_FUZZ=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build-fuzz -j"$(nproc)" >/dev/null

targets=()
for t in build-fuzz/fuzz/fuzz_*; do
  [ -x "$t" ] || continue
  name=$(basename "$t")
  if [ -n "${TAVIK_FUZZ_ONLY:-}" ] && [[ " $TAVIK_FUZZ_ONLY " != *" $name "* ]]; then continue; fi
  targets+=("$name")
done

one() {
  local name=$1 work=build-fuzz/scale/$1
  rm -rf "$work" && mkdir -p "$work/corpus"
  [ -d "fuzz/corpus/$name" ] && cp fuzz/corpus/"$name"/* "$work/corpus/"
  local start end status=ok
  start=$(date +%s)
  if ! build-fuzz/fuzz/"$name" -runs="$runs" -max_total_time="$cap" -max_len=8192 -print_final_stats=1 \
      -artifact_prefix="build-fuzz/$name-" "$work/corpus" >"$work/log" 2>&1; then
    status=CRASH
  fi
  end=$(date +%s)
  local done
  done=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$work/log" | grep -o '[0-9]*$' || echo 0)
  local seconds=$((end - start > 0 ? end - start : 1))
  printf '%-24s %12s executions %9s/s %6ss  %s\n' "$name" "$done" "$((done / seconds))" "$seconds" "$status"
}
export -f one
export runs cap
printf '%s\n' "${targets[@]}" | xargs -P "$jobs" -I{} bash -c 'one {}'
