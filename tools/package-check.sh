#!/usr/bin/env bash
# The Debian package from end to end, as CI runs it on a fresh machine (as
# root; systemd need not run there):
#   1. builds it with CPack from BUILD-DIR (built by tools/test.sh) and
#      lints it (lintian: no error or warning that is not overridden);
#   2. installs it with dpkg -i: every file in place, nothing made that the
#      agent makes itself; systemd-analyze verifies the unit; the installed
#      manual pages render and the bash completion completes;
#   3. starts the installed agent directly, queries it with the installed
#      tavikctl and stops it;
#   4. starts it again held to the unit's capability bounding set, and runs
#      a backup, a restore (as root, for a trusted login: owners, set-id
#      bits, a device node) and a compare through it as a login of its own;
#   5. removes the package (dpkg -r: only the agent's run-time files and
#      the conffile stay) and purges it (dpkg -P: nothing stays).
#   tools/package-check.sh [BUILD-DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
source tools/agent.sh
failed() {
  echo "package-check: failed at line $1: $2" >&2
  if [ -f "$home/LOG/tvk.log" ]; then
    echo "the end of the agent's log:" >&2
    tail -n 15 "$home/LOG/tvk.log" | sed 's/^/  /' >&2
  fi
}
trap 'failed $LINENO "$BASH_COMMAND"' ERR
step() { printf '== package: %s\n' "$*"; }
fail() {
  failed "${BASH_LINENO[0]}" "$*"
  exit 1
}

[ "$(id -u)" -eq 0 ] || fail "run as root: it installs and removes the package tavik"
home=$(sed -n 's/^TAVIK_AGENT_DIR:PATH=//p' "$build/CMakeCache.txt")
[ -n "$home" ] || fail "no TAVIK_AGENT_DIR in $build/CMakeCache.txt: build first (tools/test.sh)"
user=tavikpkg
scratch=$(mktemp -d /tmp/tavik-package-XXXXXX)
cleanup() {
  stop_agent "$home" >/dev/null 2>&1 || true
  if dpkg-query -W -f='${Status}' tavik 2>/dev/null | grep -q installed; then dpkg -P tavik >/dev/null || true; fi
  id "$user" >/dev/null 2>&1 && userdel -r "$user" >/dev/null 2>&1
  rm -rf "$scratch"
}
trap cleanup EXIT

# What an earlier, interrupted run left.
dpkg -P tavik >/dev/null 2>&1 || true
id "$user" >/dev/null 2>&1 && userdel -r "$user" >/dev/null 2>&1
[ ! -e "$home" ] || fail "$home exists and belongs to no package: move it away first"

step "build and lint"
rm -f "$build"/tavik_*.deb
(cd "$build" && cpack -G DEB >/dev/null)
deb=$(ls "$build"/tavik_*.deb)
dpkg-deb --info "$deb" | sed -n 's/^ \(Package\|Version\|Depends\):/  &/p'
lintian --fail-on error,warning --show-overrides "$deb" 2>&1 | grep -v "running with root privileges" || true
lintian --fail-on error,warning "$deb" >/dev/null 2>&1 || fail "lintian reports errors or warnings"

step "install"
dpkg -i "$deb" >/dev/null
# The package's files, less those that the machine's dpkg filters keep out
# (path-exclude in /etc/dpkg/dpkg.cfg.d: manual pages and documentation on
# slim images; the last rule that matches decides).
rules=$(cat /etc/dpkg/dpkg.cfg.d/* 2>/dev/null | sed -n 's/^[[:space:]]*\(path-exclude\|path-include\)[[:space:]=]\+/\1 /p')
kept() {
  local kind pattern keep=1
  while read -r kind pattern; do
    # shellcheck disable=SC2053
    [ -n "$kind" ] && [[ $1 == $pattern ]] && { [ "$kind" = path-include ] && keep=1 || keep=0; }
  done <<<"$rules"
  [ "$keep" = 1 ]
}
files=$(dpkg-deb --fsys-tarfile "$deb" | tar -tf - | sed -n 's|^\./|/|; /[^/]$/p' | while read -r f; do
  if kept "$f"; then echo "$f"; fi
done)
for f in $files; do [ -e "$f" ] || fail "dpkg -i did not install $f"; done
if [ -d /run/systemd/system ]; then
  systemctl is-active --quiet tavikd || fail "systemd runs here, but the unit did not start"
  systemctl stop tavikd
elif [ -e "$home/LOG" ] || [ -e "$home/follow.symlink" ]; then
  fail "the package made what the agent makes itself: $(ls "$home")"
fi
unit=$(grep '/tavikd\.service$' <<<"$files")
man=--man=yes
[ -f /usr/share/man/man8/tavikd.8.gz ] || man=--man=no  # a machine that keeps no manual pages
systemd-analyze verify "$man" "$unit"
systemd-analyze security --offline=true "$unit" 2>/dev/null | grep -a "Overall exposure" || true
for page in $(grep '/man/' <<<"$files"); do
  [ -n "$(man -l "$page" 2>/dev/null | grep '^NAME')" ] || fail "man -l $page renders nothing"
done
completion=$(grep '/completions/tavikctl$' <<<"$files")
complete() {
  (cd "$scratch" && bash -c 'source /usr/share/bash-completion/bash_completion; source "$1"; shift
    COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMP_LINE="$*"; COMP_POINT=${#COMP_LINE}
    _tavikctl tavikctl "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
    printf "%s\n" "${COMPREPLY[@]}" | sort | tr "\n" " "' complete "$completion" "$@")
}
touch "$scratch/old.tvk"
[ "$(complete tavikctl l)" = "list ls " ] || fail "completion of 'tavikctl l': $(complete tavikctl l)"
[ "$(complete tavikctl restore --co)" = "--conflict " ] || fail "completion of 'tavikctl restore --co'"
[ "$(complete tavikctl compare "")" = "old.tvk " ] || fail "completion of an archive: $(complete tavikctl compare "")"

step "start the installed agent directly, query it, stop it"
start_agent "$home/tavikd"
port=$AGENT_PORT
pid=$(cat "$home/LOG/tavikd.pid")
answer=$(tavikctl query "127.0.0.1:$port" --json)
echo "$answer"
grep -q '"system":"Linux"' <<<"$answer" || fail "the query's answer names no system"
stop_agent "$home"
! kill -0 "$pid" 2>/dev/null || fail "the agent still runs"
[ ! -e "$home/LOG/tavikd.pid" ] || fail "the agent left its pid file"
grep -q "started on" "$home/LOG/tvk.log" && grep -q "Tavik stopped" "$home/LOG/tvk.log" ||
  fail "the log does not show the start and the stop"

step "jobs of a login through an agent held to the unit's capabilities"
caps=$(sed -n 's/^CapabilityBoundingSet=//p' "$unit" | tr ' ' '\n' | sed 's/^CAP_//' | tr 'A-Z' 'a-z' |
  sed 's/^/+/' | paste -sd, -)
useradd -m "$user"
# The login lives only while this step runs. (The protocol's password
# field holds 23 characters at most.)
password=Pkg-check-1
echo "$user:$password" | chpasswd
echo "$user" >"$home/trust.cntl"
chmod 0644 "$home/trust.cntl"
tree=$scratch/tree
mkdir -p "$tree/sub"
echo data >"$tree/sub/file"
echo root >"$tree/owned-by-root"
install -m 04755 /dev/null "$tree/set-uid"
chown 1234:2345 "$tree/sub/file"
ln -s sub/file "$tree/link"
chmod 0755 "$scratch"
install -d -o "$user" "$scratch/dest"  # where the login may make the restore's destination
bounded="setpriv --bounding-set -all,$caps --no-new-privs"
AGENT_LAUNCHER=$bounded start_agent "$home/tavikd"
export TAVIK_PASSWORD=$password
job() { tavikctl "$@" --port "$AGENT_PORT" --user "$user"; }
job backup "127.0.0.1:$tree" -o "$scratch/tree.tvk" --json
job restore "$scratch/tree.tvk" "127.0.0.1:$scratch/dest/back" --json
job compare "$scratch/tree.tvk" "127.0.0.1:$scratch/dest/back" --detailed
[ "$(stat -c '%u:%g %a' "$scratch/dest/back/sub/file" "$scratch/dest/back/set-uid")" = $'1234:2345 644\n0:0 4755' ] ||
  fail "the restore did not bring back owners and set-id bits"
stop_agent "$home"
# Only root's backups carry device nodes and FIFOs: single-user mode.
mkdir "$scratch/special"
mknod "$scratch/special/null-device" c 1 3
mkfifo "$scratch/special/fifo"
AGENT_LAUNCHER=$bounded start_agent "$home/tavikd" -S
job backup "127.0.0.1:$scratch/special" -o "$scratch/special.tvk" --json
job restore "$scratch/special.tvk" "127.0.0.1:$scratch/special-back" --json
[ "$(stat -c '%F %t:%T' "$scratch/special-back/null-device")" = "character special file 1:3" ] ||
  fail "the restore did not bring back the device node"
stop_agent "$home"
unset TAVIK_PASSWORD
userdel -r "$user" >/dev/null 2>&1

step "remove, then purge"
dpkg -r tavik >/dev/null 2>&1
conffiles=$(dpkg-deb -f "$deb" Package >/dev/null && dpkg-deb --ctrl-tarfile "$deb" | tar -xOf - ./conffiles)
for f in $files; do
  if grep -qx "$f" <<<"$conffiles"; then
    [ -e "$f" ] || fail "dpkg -r removed the conffile $f"
  else
    [ ! -e "$f" ] || fail "dpkg -r left $f"
  fi
done
left=$(find "$home" -mindepth 1 -maxdepth 1 -printf '%f\n' | sort | paste -sd' ' -)
[ "$left" = "LOG trust.cntl" ] || fail "after dpkg -r, $home holds more than the agent's files: $left"
dpkg -P tavik >/dev/null 2>&1
[ ! -e "$home" ] || fail "dpkg -P left $home: $(find "$home")"
for f in $conffiles; do [ ! -e "$f" ] || fail "dpkg -P left $f"; done
! dpkg-query -W -f='${Status}' tavik 2>/dev/null | grep -q installed || fail "tavik is still installed"
echo "package-check: built, linted, installed, started, queried, served a login's jobs, stopped, removed and purged"
