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

source tools/agent.sh
stop() {
  stop_agent "$home" || true
  rm -rf "$scratch"
}
trap stop EXIT

step() { printf '\n== %s\n' "$*"; }
trap 'echo "error: the demonstration failed at line $LINENO: $BASH_COMMAND" >&2' ERR

step "starting tavikd in $home on a free port (single-user mode)"
start_agent "$home/tavikd" -S || exit 1
port=$AGENT_PORT
echo "tavikd serves port $port"
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
