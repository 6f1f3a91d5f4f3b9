#!/usr/bin/env bash
# Backup and restore throughput against GNU tar, on three data sets:
#   big    1 GiB in four files
#   small  100,000 files of 0..16 KiB in 1,000 directories
#   usr    a copy of /usr/include
#
# Backup: tavikd + `tavikctl backup -o /dev/null` against GNU tar writing
# into a socket read by `nc` into /dev/null.
# Each set is sent ROUNDS times by each tool, alternating, at the default
# I/O buffer (2048) and at 8192 (daemon -b 8192, --buffer-from-agent).
# Printed per run: MB/s, files/s, CPU seconds and peak memory (the agent's
# job processes: CPU and largest VmHWM sampled from /proc; tar: from wait4;
# tavikctl's own CPU as well), then the median ratio agent/tar of MB/s.
#
# Restore: each set is archived once by each tool; then, alternating,
# `tavikctl restore ARCHIVE 127.0.0.1:DEST` (the archive is checked whole,
# then replayed to the agent) and `tar -cf` of the tar archive sent over
# loopback to `nc -l PORT | tar -xf -`, both into an empty directory on the
# same file system. After every run the destination is compared with the
# source (names, types, modes, owners, sizes, file modification times, link
# targets and counts, and every file's content). Printed per run: seconds,
# MB/s and files/s; then the median ratio of agent time to tar time.
#
# Environment:
#   TAVIK_BENCH_PARTS  "backup restore" (default), or either alone
#   TAVIK_BENCH_SCALE  fraction of the full sizes (default 1; 0.01 runs small)
#   TAVIK_BENCH_ROUNDS pairs per set and buffer size (default 3)
#   TAVIK_BENCH_DIR    scratch directory (default /tmp/tavik-bench)
#   TAVIK_BUILD        build directory (default build; built if missing)
set -euo pipefail
cd "$(dirname "$0")/.."
scale=${TAVIK_BENCH_SCALE:-1}
rounds=${TAVIK_BENCH_ROUNDS:-3}
work=${TAVIK_BENCH_DIR:-/tmp/tavik-bench}
build=${TAVIK_BUILD:-build}

bash tools/deps.sh
if [ ! -x "$build/src/daemon/tavikd" ] || [ ! -x "$build/bench/tavik_bench_probe" ]; then
  cmake -S . -B "$build" -G Ninja >/dev/null
  cmake --build "$build" -j"$(nproc)" --target tavikd tavikctl tavik_bench_gen tavik_bench_probe
fi
tavikd=$PWD/$build/src/daemon/tavikd
tavikctl=$PWD/$build/src/frontend/tavikctl
gen=$PWD/$build/bench/tavik_bench_gen
probe=$PWD/$build/bench/tavik_bench_probe

mkdir -p "$work"
data=$work/data-$scale
# Integer arithmetic on the scaled sizes.
scaled() { awk -v n="$1" -v s="$scale" 'BEGIN { v = int(n * s); if (v < 1) v = 1; print v }'; }
if [ ! -f "$data/.done" ]; then
  rm -rf "$data"
  mkdir -p "$data"
  echo "generating data sets (scale $scale) in $data" >&2
  "$gen" big "$data/big" 4 "$(scaled 268435456)"
  "$gen" small "$data/small" "$(scaled 100000)" "$(scaled 1000)" 16384
  cp -a /usr/include "$data/usr"
  touch "$data/.done"
fi

free_port() {
  local p
  while :; do
    p=$((20000 + RANDOM % 20000))
    # Any state counts (a port in TIME_WAIT cannot be bound by nc either).
    ss -tanuH "sport = :$p" | grep -q . || { echo "$p"; return; }
  done
}

daemon_pid=
stop_daemon() {
  if [ -n "$daemon_pid" ]; then kill "$daemon_pid" 2>/dev/null || true; daemon_pid=; fi
}
trap stop_daemon EXIT

# start_daemon BUFFER: a fresh agent home with its own copy of tavikd.
start_daemon() {
  local home=$work/agent-$1
  rm -rf "$home"; mkdir -p "$home"
  cp "$tavikd" "$home/tavikd"
  agent_port=$(free_port)
  local extra=()
  [ "$1" != 2048 ] && extra=(-b "$1")
  "$home/tavikd" -S -p "$agent_port" "${extra[@]}" >/dev/null 2>&1
  for _ in $(seq 100); do [ -s "$home/LOG/tavikd.pid" ] && break; sleep 0.05; done
  daemon_pid=$(cat "$home/LOG/tavikd.pid")
}

results=$work/results.txt
: > "$results"
export TAVIK_PASSWORD=bench
parts=${TAVIK_BENCH_PARTS:-backup restore}

for buffer in 2048 8192; do
  case " $parts " in *" backup "*) ;; *) break ;; esac
  start_daemon "$buffer"
  flags=()
  [ "$buffer" != 2048 ] && flags=(--buffer-from-agent)
  for set in big small usr; do
    dir=$data/$set
    bytes=$(find "$dir" -type f -printf '%s\n' | awk '{ s += $1 } END { print s + 0 }')
    entries=$(find "$dir" | wc -l)
    tar -cf - -C "$dir" . | cat > /dev/null   # warm the page cache (tar skips reading for /dev/null)
    for round in $(seq "$rounds"); do
      # The agent: sample its job processes while tavikctl receives.
      "$probe" watch "$daemon_pid" > "$work/watch.out" &
      watcher=$!
      sleep 0.05
      # The job processes live until tavikctl closes the connection: it
      # holds it 200 ms after END so that their last CPU sample is complete.
      read -r wall cpu rss status < <("$probe" run "$tavikctl" backup "127.0.0.1:$dir" -o /dev/null \
                                        --port "$agent_port" --hold-after-end 200 "${flags[@]}" 2>"$work/backup.err")
      wall=$(awk -v w="$wall" 'BEGIN { print w - 0.2 }')
      kill -TERM "$watcher"; wait "$watcher" || true
      read -r acpu apeak nproc < "$work/watch.out"
      [ "$status" = 0 ] || { echo "backup failed:"; cat "$work/backup.err"; exit 1; } >&2
      echo "$buffer $set agent $round $wall $bytes $entries $acpu $apeak $cpu" >> "$results"

      # GNU tar into a socket, nc discarding.
      port=$(free_port)
      nc -d -l 127.0.0.1 "$port" > /dev/null &
      listener=$!
      for _ in $(seq 100); do ss -ltnH "sport = :$port" | grep -q . && break; sleep 0.02; done
      read -r wall cpu rss status < <("$probe" run bash -c "exec tar -cf - -C '$dir' . > /dev/tcp/127.0.0.1/$port")
      wait "$listener" || true
      [ "$status" = 0 ] || { echo "tar failed" >&2; exit 1; }
      echo "$buffer $set tar $round $wall $bytes $entries $cpu $rss 0" >> "$results"
    done
  done
  stop_daemon
done

if [ -s "$results" ]; then
echo "scale $scale, $rounds rounds; MB = 10^6 bytes of file data; peak = VmHWM (agent) / maxrss (tar) in MB"
awk '
  { key = $1 " " $2; rate = $6 / 1e6 / $5; fps = $7 / $5
    printf "buffer %-5s %-6s %-6s round %d: %8.1f MB/s %9.0f files/s  cpu %6.2f s  peak %6.1f MB%s\n",
           $1, $2, $3, $4, rate, fps, $8, $9 / 1024, ($3 == "agent" ? sprintf("  (tavikctl cpu %.2f s)", $10) : "")
    if ($3 == "agent") agent[key, $4] = rate; else tarr[key, $4] = rate
    keys[key] = 1; n[key] = ($4 > n[key] ? $4 : n[key]) }
  END {
    for (k in keys) {
      m = 0
      for (r = 1; r <= n[k]; r++) ratio[++m] = agent[k, r] / tarr[k, r]
      for (i = 1; i <= m; i++) for (j = i + 1; j <= m; j++) if (ratio[j] < ratio[i]) { t = ratio[i]; ratio[i] = ratio[j]; ratio[j] = t }
      med = (m % 2) ? ratio[(m + 1) / 2] : (ratio[m / 2] + ratio[m / 2 + 1]) / 2
      printf "ratio agent/tar MB/s, buffer %s: median %.2f over %d pairs\n", k, med, m
    }
  }' "$results"
fi

case " $parts " in *" restore "*) ;; *) exit 0 ;; esac

# snapshot DIR: one line per entry below DIR, with what a restore must
# bring back (directory times are not carried by the agent's restore).
snapshot() {
  (cd "$1" && find . -mindepth 1 \( -type d -printf '%p d %m %U %G\n' \) -o \( -type l -printf '%p l %U %G %l\n' \) \
     -o -printf '%p %y %m %U %G %s %Ts %n\n' | LC_ALL=C sort)
}
verify() {
  if ! diff -q <(snapshot "$1") <(snapshot "$2") >/dev/null || ! diff -rq --no-dereference "$1" "$2" >/dev/null; then
    echo "restore of $1 into $2 differs:" >&2
    diff <(snapshot "$1") <(snapshot "$2") | head -20 >&2
    exit 1
  fi
}

restore_results=$work/restore-results.txt
: > "$restore_results"
start_daemon 2048
for set in big small usr; do
  dir=$data/$set
  bytes=$(find "$dir" -type f -printf '%s\n' | awk '{ s += $1 } END { print s + 0 }')
  entries=$(find "$dir" | wc -l)
  archive=$work/restore-$set.tvk
  tarball=$work/restore-$set.tar
  "$tavikctl" backup "127.0.0.1:$dir" -o "$archive" --port "$agent_port" 2>"$work/backup.err" ||
    { echo "backup failed:"; cat "$work/backup.err"; exit 1; } >&2
  tar -cf "$tarball" -C "$dir" .
  cat "$archive" "$tarball" > /dev/null   # both archives in the page cache
  for round in $(seq "$rounds"); do
    dest=$work/restore-dest
    rm -rf "$dest"; sync
    read -r wall cpu rss status < <("$probe" run "$tavikctl" restore "$archive" "127.0.0.1:$dest" \
                                      --port "$agent_port" 2>"$work/restore.err")
    [ "$status" = 0 ] || { echo "restore failed:"; cat "$work/restore.err"; exit 1; } >&2
    echo "$set agent $round $wall $bytes $entries" >> "$restore_results"
    verify "$dir" "$dest"

    rm -rf "$dest"; mkdir "$dest"; sync
    port=$(free_port)
    ( nc -d -l 127.0.0.1 "$port" | tar -xf - -C "$dest" ) &
    receiver=$!
    for _ in $(seq 100); do ss -ltnH "sport = :$port" | grep -q . && break; sleep 0.02; done
    t0=$(date +%s.%N)
    bash -c "exec cat '$tarball' > /dev/tcp/127.0.0.1/$port"
    wait "$receiver" || { echo "tar -x failed" >&2; exit 1; }
    t1=$(date +%s.%N)
    wall=$(awk -v a="$t0" -v b="$t1" 'BEGIN { printf "%.3f", b - a }')
    echo "$set tar $round $wall $bytes $entries" >> "$restore_results"
    verify "$dir" "$dest"
  done
  rm -f "$archive" "$tarball"
done
stop_daemon
rm -rf "$work/restore-dest"

echo "restore, scale $scale, $rounds rounds; destinations verified identical to the sources"
awk '
  { printf "restore %-6s %-6s round %d: %7.3f s %8.1f MB/s %9.0f files/s\n", $1, $2, $3, $4, $5 / 1e6 / $4, $6 / $4
    if ($2 == "agent") agent[$1, $3] = $4; else tarr[$1, $3] = $4
    sets[$1] = 1; n[$1] = ($3 > n[$1] ? $3 : n[$1]) }
  END {
    for (k in sets) {
      m = 0
      for (r = 1; r <= n[k]; r++) ratio[++m] = agent[k, r] / tarr[k, r]
      for (i = 1; i <= m; i++) for (j = i + 1; j <= m; j++) if (ratio[j] < ratio[i]) { t = ratio[i]; ratio[i] = ratio[j]; ratio[j] = t }
      med = (m % 2) ? ratio[(m + 1) / 2] : (ratio[m / 2] + ratio[m / 2 + 1]) / 2
      printf "restore time agent/tar, %s: median %.2f over %d pairs (target 1.10 or less)\n", k, med, m
    }
  }' "$restore_results"
