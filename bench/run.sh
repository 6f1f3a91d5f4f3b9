#!/usr/bin/env bash
# Backup and restore throughput against GNU tar, with the limits beside them,
# on three data sets:
#   big    1 GiB in four files
#   small  100,000 files of 0..16 KiB in 1,000 directories
#   usr    a copy of /usr/include
#
# Limits, per set: the read floor (one process walks the set, lstats every
# entry, opens every regular file, reads it in 64 KiB blocks and closes it;
# warm, the median of the rounds) and, once, the loopback bandwidth (a sender
# writing 128 KiB and 2 KiB blocks into a TCP socket drained by a reader).
#
# Backup: tavikd + `tavikctl backup -o /dev/null` against GNU tar writing
# into a socket (`tar -cf - -C SET . > /dev/tcp/127.0.0.1/PORT`) drained by
# `socat -u -b 131072 TCP-LISTEN:PORT OPEN:/dev/null,wronly`.
# Each set is sent ROUNDS times by each tool, alternating, at the default
# I/O buffer (2048) and at 8192 (daemon -b 8192, --buffer-from-agent).
# Printed per run: MB/s, files/s, CPU seconds and peak memory (the agent's
# job processes: CPU and largest VmHWM sampled from /proc; tar: from wait4;
# tavikctl's own CPU as well); then per set and buffer the medians: the
# agent's MB/s against tar's and against the read floor, its CPU seconds per
# GB of file data and per 10,000 files, and its peak memory.
#
# Restore: each set is archived once by each tool; then, alternating,
# `tavikctl restore ARCHIVE 127.0.0.1:DEST` (the archive is checked whole,
# then replayed to the agent) and `tar -cf` of the tar archive sent over
# loopback to `nc -l PORT | tar -xf -`, both into an empty directory, on the
# benchmark directory's file system and on a journaled ext4 file system made
# in a file on a loop device. After every run the destination is compared
# with the source (names, types, modes, owners, sizes, file modification
# times, link targets and counts, and every file's content). Printed per run:
# seconds, MB/s and files/s; then the median ratio of agent time to tar time
# per set and file system.
#
# One set at a small scale, once each:
#   TAVIK_BENCH_SETS=small TAVIK_BENCH_SCALE=0.01 TAVIK_BENCH_ROUNDS=1 bash bench/run.sh
#
# Environment:
#   TAVIK_BENCH_PARTS  "backup restore" (default), or either alone
#   TAVIK_BENCH_SETS   "big small usr" (default), or any of them
#   TAVIK_BENCH_SCALE  fraction of the full sizes (default 1; 0.01 runs small)
#   TAVIK_BENCH_ROUNDS pairs per set and buffer size (default 3)
#   TAVIK_BENCH_DIR    scratch directory (default /tmp/tavik-bench)
#   TAVIK_BENCH_EXT4   0: no restore on the ext4 loop device (default 1)
#   TAVIK_BUILD        build directory (default build; built if missing)
set -euo pipefail
cd "$(dirname "$0")/.."
scale=${TAVIK_BENCH_SCALE:-1}
rounds=${TAVIK_BENCH_ROUNDS:-3}
work=${TAVIK_BENCH_DIR:-/tmp/tavik-bench}
build=${TAVIK_BUILD:-build}
sets=${TAVIK_BENCH_SETS:-big small usr}
ext4=${TAVIK_BENCH_EXT4:-1}

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
mounted=
cleanup() {
  stop_daemon
  if [ -n "$mounted" ]; then umount "$mounted" 2>/dev/null || true; rm -f "$work/ext4.img"; mounted=; fi
}
trap cleanup EXIT

# median: the median of the numbers on standard input.
median() { sort -g | awk '{ v[NR] = $1 } END { if (NR == 0) print 0; else if (NR % 2) print v[(NR + 1) / 2]; else print (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

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

# The limits: the read floor of each set, the loopback bandwidth.
limits=$work/limits.txt
: > "$limits"
for set in $sets; do
  "$probe" floor "$data/$set" > /dev/null   # warm
  for round in $(seq "$rounds"); do
    read -r wall bytes files < <("$probe" floor "$data/$set")
    echo "floor $set $wall $bytes $files" >> "$limits"
  done
done
loop_bytes=$(scaled 1073741824)
[ "$loop_bytes" -lt 67108864 ] && loop_bytes=67108864
for block in 131072 2048; do
  read -r wall bytes < <("$probe" loopback "$block" "$loop_bytes")
  echo "loopback $block $wall $bytes" >> "$limits"
done
echo "limits, scale $scale: read floor (median of $rounds) and loopback bandwidth"
for set in $sets; do
  grep "^floor $set " "$limits" | awk '{ print $3 }' | median | {
    read -r wall
    grep "^floor $set " "$limits" | head -1 | awk -v w="$wall" '{
      printf "read floor %-6s %7.3f s %8.1f MB/s %9.0f files/s\n", $2, w, $4 / 1e6 / w, $5 / w }'
  }
done
awk '$1 == "loopback" { printf "loopback, %6d-byte blocks: %8.1f MB/s\n", $2, $4 / 1e6 / $3 }' "$limits"

results=$work/results.txt
: > "$results"
export TAVIK_PASSWORD=bench
parts=${TAVIK_BENCH_PARTS:-backup restore}

for buffer in 2048 8192; do
  case " $parts " in *" backup "*) ;; *) break ;; esac
  start_daemon "$buffer"
  flags=()
  [ "$buffer" != 2048 ] && flags=(--buffer-from-agent)
  for set in $sets; do
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

      # GNU tar into a socket, socat discarding.
      port=$(free_port)
      socat -u -b 131072 "TCP-LISTEN:$port,bind=127.0.0.1,reuseaddr" OPEN:/dev/null,wronly &
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
  $1 == "floor" { fl[$2] += $4 / 1e6 / $3; fn[$2]++; next }
  $1 == "loopback" { next }
  { key = $1 " " $2; rate = $6 / 1e6 / $5; fps = $7 / $5
    printf "buffer %-5s %-6s %-6s round %d: %8.1f MB/s %9.0f files/s  cpu %6.2f s  peak %6.1f MB%s\n",
           $1, $2, $3, $4, rate, fps, $8, $9 / 1024, ($3 == "agent" ? sprintf("  (tavikctl cpu %.2f s)", $10) : "")
    if ($3 == "agent") {
      agent[key, $4] = rate; set[key] = $2; entries[key] = $7
      gb[key, $4] = $8 / ($6 / 1e9); tenk[key, $4] = $8 / ($7 / 1e4); peak[key, $4] = $9 / 1024
    } else tarr[key, $4] = rate
    keys[key] = 1; n[key] = ($4 > n[key] ? $4 : n[key]) }
  function median(a, m,   i, j, t) {
    for (i = 1; i <= m; i++) for (j = i + 1; j <= m; j++) if (a[j] < a[i]) { t = a[i]; a[i] = a[j]; a[j] = t }
    return (m % 2) ? a[(m + 1) / 2] : (a[m / 2] + a[m / 2 + 1]) / 2
  }
  END {
    for (k in keys) {
      m = n[k]
      for (r = 1; r <= m; r++) { rt[r] = agent[k, r] / tarr[k, r]; rf[r] = agent[k, r]; cg[r] = gb[k, r]; ck[r] = tenk[k, r]; pk[r] = peak[k, r] }
      rfloor = fn[set[k]] ? fl[set[k]] / fn[set[k]] : 0
      # Per 10,000 files only where the set has thousands of them.
      perfiles = entries[k] >= 1000 ? sprintf("%.2f s per 10,000 files", median(ck, m)) : "no per-file figure"
      printf "buffer %s: agent/tar MB/s median %.2f over %d pairs; agent/read floor %.2f; agent cpu %.2f s per GB, %s; peak %.1f MB\n",
             k, median(rt, m), m, rfloor ? median(rf, m) / rfloor : 0, median(cg, m), perfiles, median(pk, m)
    }
  }' "$limits" "$results"
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

# Where the restores go: the benchmark directory's file system, and a
# journaled ext4 file system in a file on a loop device, sized for the
# largest set three times over.
targets=("$(stat -f -c %T "$work"):$work")
if [ "$ext4" != 0 ]; then
  largest=0
  inodes=0
  for set in $sets; do
    b=$(du -sb "$data/$set" | awk '{ print $1 }')
    e=$(find "$data/$set" | wc -l)
    [ "$b" -gt "$largest" ] && largest=$b
    [ "$e" -gt "$inodes" ] && inodes=$e
  done
  truncate -s $((largest * 3 + 67108864)) "$work/ext4.img"
  mkfs.ext4 -q -F -N $((inodes * 3 + 1024)) "$work/ext4.img"
  mkdir -p "$work/ext4"
  mount -o loop "$work/ext4.img" "$work/ext4"
  mounted=$work/ext4
  targets+=("ext4:$work/ext4")
fi

start_daemon 2048
for set in $sets; do
  dir=$data/$set
  bytes=$(find "$dir" -type f -printf '%s\n' | awk '{ s += $1 } END { print s + 0 }')
  entries=$(find "$dir" | wc -l)
  archive=$work/restore-$set.tvk
  tarball=$work/restore-$set.tar
  "$tavikctl" backup "127.0.0.1:$dir" -o "$archive" --port "$agent_port" 2>"$work/backup.err" ||
    { echo "backup failed:"; cat "$work/backup.err"; exit 1; } >&2
  tar -cf "$tarball" -C "$dir" .
  cat "$archive" "$tarball" > /dev/null   # both archives in the page cache
  for target in "${targets[@]}"; do
    fs=${target%%:*}
    dest=${target#*:}/restore-dest
    for round in $(seq "$rounds"); do
      rm -rf "$dest"; sync
      read -r wall cpu rss status < <("$probe" run "$tavikctl" restore "$archive" "127.0.0.1:$dest" \
                                        --port "$agent_port" 2>"$work/restore.err")
      [ "$status" = 0 ] || { echo "restore failed:"; cat "$work/restore.err"; exit 1; } >&2
      echo "$set $fs agent $round $wall $bytes $entries" >> "$restore_results"
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
      echo "$set $fs tar $round $wall $bytes $entries" >> "$restore_results"
      verify "$dir" "$dest"
    done
    rm -rf "$dest"
  done
  rm -f "$archive" "$tarball"
done
stop_daemon

echo "restore, scale $scale, $rounds rounds; destinations verified identical to the sources"
awk '
  { key = $1 " on " $2
    printf "restore %-6s %-6s %-6s round %d: %7.3f s %8.1f MB/s %9.0f files/s\n", $1, $2, $3, $4, $5, $6 / 1e6 / $5, $7 / $5
    if ($3 == "agent") agent[key, $4] = $5; else tarr[key, $4] = $5
    keys[key] = 1; n[key] = ($4 > n[key] ? $4 : n[key]) }
  END {
    for (k in keys) {
      m = 0
      for (r = 1; r <= n[k]; r++) ratio[++m] = tarr[k, r] / agent[k, r]
      for (i = 1; i <= m; i++) for (j = i + 1; j <= m; j++) if (ratio[j] < ratio[i]) { t = ratio[i]; ratio[i] = ratio[j]; ratio[j] = t }
      med = (m % 2) ? ratio[(m + 1) / 2] : (ratio[m / 2] + ratio[m / 2 + 1]) / 2
      printf "restore speed agent/tar (tar time / agent time), %s: median %.2f over %d pairs\n", k, med, m
    }
  }' "$restore_results"
