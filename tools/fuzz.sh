#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a short fixed time.
#   tools/fuzz.sh [seconds-per-target]   (default 20)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-20}
CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DTAVIK_FUZZ=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build-fuzz -j"$(nproc)"
status=0
for target in build-fuzz/fuzz/fuzz_*; do
  [ -x "$target" ] || continue
  name=$(basename "$target")
  corpus=build-fuzz/corpus/$name
  mkdir -p "$corpus"
  # The kept seeds: inputs that reach past the first length checks.
  if [ -d "fuzz/corpus/$name" ]; then cp -n fuzz/corpus/"$name"/* "$corpus"/; fi
  # libFuzzer checks its total time between inputs only: an input that
  # hangs ends at -timeout (a failure), and the whole target at the outer
  # bound, never later.
  if timeout -k 5 $((seconds * 2 + 60)) "$target" -max_total_time="$seconds" -timeout=30 -max_len=8192 -print_final_stats=0 -artifact_prefix="build-fuzz/$name-" "$corpus" >"build-fuzz/$name.log" 2>&1; then
    echo "fuzz: $name ok (${seconds}s)"
  else
    echo "fuzz: $name FAILED"; tail -40 "build-fuzz/$name.log"; status=1
  fi
done
exit $status
