#!/usr/bin/env bash
# The package under a live systemd, which CI does not have: boots a minimal
# Debian 12 (debootstrap) in systemd-nspawn, installs the package there and
# checks that postinst enables and starts the unit; that the agent runs in
# the foreground with the unit's sandbox (capabilities, no new privileges,
# system-call filter) and answers; that a backup, restore and compare with a
# device node, foreign owners and a set-user-id file work in the sandbox;
# that a stop leaves the unit inactive, not failed; that a crash restarts
# it; that a taken port ends the start with the reason in the journal; and
# that dpkg -r stops it and dpkg -P leaves nothing. Not run by CI (it
# fetches a base system, about 150 MB); run it when the unit changes.
#   tools/unit-check.sh [BUILD-DIR]   (as root; build/tavik_*.deb from tools/package-check.sh or cpack)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
deb=$(ls "$build"/tavik_*.deb 2>/dev/null | head -1)
[ -n "$deb" ] || { echo "no package in $build: (cd $build && cpack -G DEB)" >&2; exit 1; }
[ "$(id -u)" -eq 0 ] || { echo "run as root" >&2; exit 1; }
for tool in debootstrap systemd-nspawn; do
  command -v "$tool" >/dev/null || DEBIAN_FRONTEND=noninteractive apt-get install -y -qq debootstrap systemd-container
done

root=$(mktemp -d /var/tmp/tavik-unit-XXXXXX)
chmod 0755 "$root"  # the container's /: its services of other users must enter it
mounted=
cleanup() {
  [ -z "$mounted" ] || umount /run/systemd/nspawn
  rm -rf "$root"
}
trap cleanup EXIT
echo "== debootstrap into $root"
debootstrap --variant=minbase --include=systemd,systemd-sysv,dbus,libpam-runtime,libisal2,procps \
  bookworm "$root" http://deb.debian.org/debian >"$root.log" 2>&1 || { tail "$root.log"; exit 1; }
rm -f "$root.log"
cp "$deb" "$root/root/tavik.deb"
cat >"$root/root/unit-test.sh" <<'INSIDE'
#!/bin/bash
exec >/root/result.txt 2>&1
check() { if eval "$2"; then echo "ok   $1"; else echo "FAIL $1"; fi; }
active() { for i in $(seq 50); do systemctl is-active --quiet tavikd && return 0; sleep 0.2; done; return 1; }
prop() { systemctl show tavikd -p "$1" --value; }
dpkg -i /root/tavik.deb >/dev/null
check "postinst enables and starts the unit" 'systemctl is-enabled --quiet tavikd && active'
sleep 1
pid=$(prop MainPID)
check "the agent serves in the foreground (its parent is process 1)" '[ "$(awk "/^PPid/ {print \$2}" /proc/$pid/status)" = 1 ]'
check "the pid file names the main process" '[ "$(cat /opt/tavik/LOG/tavikd.pid)" = "$pid" ]'
check "the sandbox applies" 'grep -q "^NoNewPrivs:.1" /proc/$pid/status && grep -q "^Seccomp:.2" /proc/$pid/status &&
  ! grep -q "^CapBnd:.000001ffffffffff" /proc/$pid/status'
check "the installed tavikctl queries it" 'tavikctl query 127.0.0.1:6050 --json | grep -q "\"system\":\"Linux\""'
mkdir -p /etc/systemd/system/tavikd.service.d
printf '[Service]\nExecStart=\nExecStart=/opt/tavik/tavikd -S\n' >/etc/systemd/system/tavikd.service.d/single-user.conf
systemctl daemon-reload && systemctl restart tavikd && active && sleep 1
mkdir -p /srv/t/sub && echo hello >/srv/t/sub/f && mknod /srv/t/dev c 1 3 && chown 1234:2345 /srv/t/sub/f && chmod 4755 /srv/t/sub/f
export TAVIK_PASSWORD=x
check "backup, restore and compare in the sandbox" 'tavikctl backup 127.0.0.1:/srv/t -o /root/t.tvk >/dev/null 2>&1 &&
  tavikctl restore /root/t.tvk 127.0.0.1:/srv/back 2>/dev/null && tavikctl compare /root/t.tvk 127.0.0.1:/srv/back --detailed >/dev/null'
check "owners, set-id bits and a device node came back" \
  '[ "$(stat -c "%F %u:%g %a %t:%T" /srv/back/dev /srv/back/sub/f | paste -sd,)" = "character special file 0:0 644 1:3,regular file 1234:2345 4755 0:0" ]'
rm -rf /etc/systemd/system/tavikd.service.d && systemctl daemon-reload && systemctl restart tavikd && active
systemctl stop tavikd
check "a stop leaves the unit inactive, not failed" '[ "$(prop ActiveState) $(prop Result)" = "inactive success" ]'
systemctl start tavikd && active && kill -SEGV "$(prop MainPID)" && sleep 7
check "a crash restarts it" '[ "$(prop ActiveState) $(prop NRestarts)" = "active 1" ]'
systemctl stop tavikd
mkdir -p /tmp/other && cp /opt/tavik/tavikd /tmp/other/ && /tmp/other/tavikd >/dev/null
systemctl start tavikd; sleep 2
check "a taken port ends the start, the reason in the journal" '[ "$(prop ActiveState)" = inactive ] &&
  journalctl -u tavikd --no-pager | grep -q "Address already in use"'
kill "$(cat /tmp/other/LOG/tavikd.pid)"; sleep 0.5
systemctl start tavikd && active
dpkg -r tavik >/dev/null 2>&1
check "dpkg -r stops the agent and leaves only LOG/" '! pgrep -x tavikd >/dev/null && [ "$(ls /opt/tavik)" = LOG ]'
dpkg -P tavik >/dev/null 2>&1
check "dpkg -P leaves nothing" '[ ! -e /opt/tavik ] && [ ! -e /etc/pam.d/tavikd ]'
echo DONE
systemctl poweroff
INSIDE
chmod +x "$root/root/unit-test.sh"
cat >"$root/etc/systemd/system/unit-test.service" <<'UNIT'
[Unit]
Description=The package and its unit under test
After=multi-user.target
[Service]
Type=oneshot
ExecStart=/root/unit-test.sh
[Install]
WantedBy=multi-user.target
UNIT
ln -s /etc/systemd/system/unit-test.service "$root/etc/systemd/system/multi-user.target.wants/"
echo tavik-unit-test >"$root/etc/hostname"

# nspawn keeps its propagation directories on a tmpfs; a machine without
# systemd may have none at /run. Without a host systemd there is no bus:
# no registration, no scope of its own.
if ! mountpoint -q /run/systemd/nspawn 2>/dev/null && [ "$(stat -f -c %T /run 2>/dev/null)" != tmpfs ]; then
  mkdir -p /run/systemd/nspawn && mount -t tmpfs tmpfs /run/systemd/nspawn && mounted=1
fi
echo "== booting it"
flags=()
[ -d /run/systemd/system ] || flags=(--keep-unit --register=no)
timeout 180 systemd-nspawn -q "${flags[@]}" -D "$root" -b --console=pipe >"$root/root/boot.log" 2>&1 || true
[ -f "$root/root/result.txt" ] || { echo "the container did not run the test; its console:"; tail -30 "$root/root/boot.log"; exit 1; }
cat "$root/root/result.txt"
grep -q '^DONE' "$root/root/result.txt" && ! grep -q '^FAIL' "$root/root/result.txt"
