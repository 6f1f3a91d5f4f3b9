#!/usr/bin/env bash
# A short demonstration of the whole product: starts a tavikd of its own in
# a scratch home on a free port, backs up a sample directory with tavikctl,
# lists the archive, restores it elsewhere, compares the restored tree with
# the archive, and stops the agent. Needs a build (tools/start.sh makes one).
set -euo pipefail
cd "$(dirname "$0")/.."
bin=build/src
[ -x $bin/daemon/tavikd ] && [ -x $bin/frontend/tavikctl ] || { echo "build first: bash tools/start.sh" >&2; exit 1; }

scratch=$(mktemp -d /tmp/tavik-demo-XXXXXX)
home=$scratch/agent
cp $bin/daemon/tavikd $bin/frontend/tavikctl "$scratch/" 2>/dev/null
mkdir -p "$home"; mv "$scratch/tavikd" "$home/"
ctl=$scratch/tavikctl
export TAVIK_PASSWORD=demo  # the demo agent runs in single-user mode: no login check

stop() {
  if [ -f "$home/LOG/tavikd.pid" ]; then kill "$(cat "$home/LOG/tavikd.pid")" 2>/dev/null || true; sleep 0.2; fi
  rm -rf "$scratch"
}
trap stop EXIT

step() { printf '\n== %s\n' "$*"; }

port=$(python3 - <<'PY' 2>/dev/null || echo 16050
import socket
s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])
PY
)

step "starting tavikd in $home on port $port (single-user mode)"
"$home/tavikd" -S -p "$port" >"$scratch/tavikd.out" 2>&1
cat "$scratch/tavikd.out"
$ctl query "127.0.0.1:$port"

step "making a sample directory"
sample=$scratch/sample
mkdir -p "$sample/docs/notes" "$sample/bin" "$sample/empty"
printf 'Tavik demonstration\n' >"$sample/README"
seq 1 20000 >"$sample/docs/numbers.txt"
head -c 100000 /dev/urandom >"$sample/bin/blob"
printf 'first\n' >"$sample/docs/notes/one"; printf 'second\n' >"$sample/docs/notes/two"
ln -s ../README "$sample/docs/readme-link"
ln "$sample/docs/notes/one" "$sample/docs/notes/one-again"
chmod 0750 "$sample/bin"; chmod 0600 "$sample/docs/notes/two"
find "$sample" | sed "s|$scratch/||" | sort

step "tavikctl backup 127.0.0.1:$sample -o sample.tvk"
$ctl backup "127.0.0.1:$sample" -o "$scratch/sample.tvk" --port "$port"

step "tavikctl list --verify sample.tvk"
$ctl list --verify "$scratch/sample.tvk"

step "tavikctl restore sample.tvk 127.0.0.1:$scratch/restored"
$ctl restore "$scratch/sample.tvk" "127.0.0.1:$scratch/restored" --port "$port"
find "$scratch/restored" | sed "s|$scratch/||" | sort

step "the agent's log so far"
sed 's/^/  /' "$home/LOG/tvk.log" | tail -n 12

step "tavikctl compare sample.tvk 127.0.0.1:$scratch/restored (the agent is stopped afterwards)"
$ctl compare "$scratch/sample.tvk" "127.0.0.1:$scratch/restored" --port "$port"
