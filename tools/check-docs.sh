#!/usr/bin/env bash
# Checks the manual pages against the programs they describe:
#   - mandoc finds nothing to say about either page, and man renders both
#     without a warning;
#   - every option of tavikd's usage text has an entry in tavikd(8);
#   - every command that tavikctl's help lists, and every option that its
#     usage text names, appears in tavikctl(1).
#   tools/check-docs.sh [BUILD-DIR]   (default build; the programs must be built)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
tavikd=$build/src/daemon/tavikd
tavikctl=$build/src/frontend/tavikctl
pages=(doc/tavikd.8 doc/tavikctl.1)
failures=0
fail() { echo "check-docs: $*" >&2; failures=$((failures + 1)); }

for page in "${pages[@]}"; do
  lint=$(mandoc -T lint "$page" 2>&1) || true
  [ -z "$lint" ] || fail "mandoc -T lint $page:"$'\n'"$lint"
  warnings=$(MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null) || true
  [ -z "$warnings" ] || fail "man --warnings -l $page:"$'\n'"$warnings"
  MANWIDTH=80 man -l "$page" 2>/dev/null | grep -q '^NAME' || fail "man -l $page renders no NAME section"
done

# tavikd: "  -b <bufsz>: ..." lines of the usage text (printed on a bad option).
options=$("$tavikd" -x 2>&1 | sed -n 's/^  -\([A-Za-z]\)[: ].*/\1/p') || true
[ "$(wc -w <<<"$options")" -ge 15 ] || fail "could not read the options from '$tavikd -x'"
for o in $options; do
  grep -qE "^\.BI? \\\\-$o( |$)" doc/tavikd.8 || fail "tavikd option -$o has no entry in doc/tavikd.8"
done

# tavikctl: the commands of its help, then the options of each command's
# usage text (printed on an unknown option).
commands=$("$tavikctl" help 2>&1 | sed -n '/^commands:/,/^$/s/^  \([a-z]\+\) .*/\1/p')
[ "$(wc -w <<<"$commands")" -ge 9 ] || fail "could not read the commands from '$tavikctl help'"
for c in $commands; do
  grep -qx "\.B tavikctl $c" doc/tavikctl.1 || fail "tavikctl $c is not in the synopsis of doc/tavikctl.1"
  grep -qE "^\.SS (.*[ ,])?$c(,|$)" doc/tavikctl.1 || fail "tavikctl $c has no section in doc/tavikctl.1"
  usage=$("$tavikctl" "$c" --no-such-option 2>&1 || true)
  for o in $(grep -oE '(^|[][ |])--?[a-z][a-z-]*' <<<"$usage" | grep -oE -- '--?[a-z][a-z-]*' | sort -u); do
    [ "$o" = --no-such-option ] && continue
    grep -qF -- "${o//-/\\-}" doc/tavikctl.1 || fail "tavikctl $c option $o is not in doc/tavikctl.1"
  done
done

if [ "$failures" -ne 0 ]; then
  echo "check-docs: $failures problems" >&2
  exit 1
fi
echo "check-docs: both manual pages lint clean and name every option and command"
