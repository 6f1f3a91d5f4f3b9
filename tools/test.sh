#!/usr/bin/env bash
# Builds the agent and runs every test.
#   tools/test.sh                 build in build/, run all tests
#   TAVIK_SANITIZE=1 tools/test.sh  the same with ASan and UBSan, in build-asan/
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/deps.sh

build=build
flags=(-DTAVIK_WERROR=ON)
if [ "${TAVIK_SANITIZE:-0}" = 1 ]; then
  build=build-asan
  flags+=(-DTAVIK_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug)
fi
cmake -S . -B "$build" -G Ninja "${flags[@]}" >/dev/null
cmake --build "$build" -j"$(nproc)"
ctest --test-dir "$build" --output-on-failure -j"$(nproc)" --timeout 300
