#!/usr/bin/env bash
# Builds tavikd and tavikctl and starts the agent from run/ (its home
# directory: log in run/LOG/). Port: $TAVIK_PORT, default 6050. Extra
# arguments are passed to tavikd (e.g. -v).
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/deps.sh
cmake -S . -B build -G Ninja -DTAVIK_WERROR=ON >/dev/null
cmake --build build -j"$(nproc)" --target tavikd tavikctl
mkdir -p run
if [ -f run/LOG/tavikd.pid ] && kill -0 "$(cat run/LOG/tavikd.pid)" 2>/dev/null; then
  echo "stopping the agent already running from run/ (pid $(cat run/LOG/tavikd.pid))"
  kill "$(cat run/LOG/tavikd.pid)"; sleep 0.5
fi
cp build/src/daemon/tavikd build/src/frontend/tavikctl run/
port=${TAVIK_PORT:-6050}
# The daemon keeps its standard output (it reports there when its log cannot
# be opened): give it a file, so that a pipe reading this script's output
# is not held open by the detached daemon.
status=0
"$PWD/run/tavikd" -p "$port" "$@" >run/tavikd.out 2>&1 || status=$?
cat run/tavikd.out
if [ "$status" -ne 0 ]; then
  echo "error: tavikd could not start on port $port (exit status $status; the reason is above)." >&2
  echo "       TAVIK_PORT=N bash tools/start.sh starts it on another port." >&2
  exit 1
fi
echo "tavikd started on port $port (pid $(cat run/LOG/tavikd.pid)); log: run/LOG/tvk.log"
echo "try:  run/tavikctl query 127.0.0.1:$port"
echo "stop: kill \$(cat run/LOG/tavikd.pid)"

# A short demonstration against an agent of its own (scratch home, free
# port): backup, list, restore, compare.
echo
echo "== demonstration"
bash tools/demo.sh
