#!/usr/bin/env bash
# Mutable state at namespace scope or in function statics, read off the
# built libraries (.bss and .data, not the read-only .data.rel.ro): every
# such object must be one of the places named below, each with the reason
# it exists. A new one fails the check; a named one that is gone is
# reported so that the list shrinks with the code.
#   tools/check-state.sh [BUILD-DIR]      (default build/, made by tools/test.sh)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}

# demangled name: why it may exist
named=(
  # Flags and actions that signal handlers set: the handlers only record.
  "tavik::platform::(anonymous namespace)::gActions: deferred signal actions (platform/signals)"
  "tavik::platform::(anonymous namespace)::gPending: signals recorded by the handler (platform/signals)"
  "tavik::platform::(anonymous namespace)::gCounts: signals counted by the handler (platform/signals)"
  # The daemon's one state object: settings (read-only after start-up), paths,
  # the listener, and in a connection process the job it serves (whose
  # context, backup state, queue and grooming live on that process's stack
  # and are passed down).
  "tavik::(anonymous namespace)::gDaemon: the daemon's state: settings, home files, listener, the process's job"
  # Start-up configuration of the log, handed down once by the daemon and
  # only read afterwards: every layer logs, and none is passed a logger.
  "tavik::(anonymous namespace)::gLog: the log's files and verbosity, fixed at start-up"
  # The message catalogue and the locale it chose: the C library keeps the
  # locale (setlocale, LANG) per process, and the catalogue follows it.
  "tavik::nls::(anonymous namespace)::catalogue()::c: the open message catalogue and the process's locale"
)

libs=("$build"/src/*/libtavik_*.a)
[ -e "${libs[0]}" ] || { echo "check-state: no libraries in $build: build first (tools/test.sh)" >&2; exit 1; }
found=$(nm -C --format=sysv --defined-only "${libs[@]}" 2>/dev/null |
  awk -F'|' '{ name = $1; sub(/ +$/, "", name); section = $7; gsub(/ /, "", section)
               if (section ~ /^\.(bss|data|tbss|tdata)/ && section !~ /rel\.ro/ && section !~ /DW\.ref/ &&
                   name !~ /^guard variable/) print name }' | sort -u)
status=0
declare -A known=()
for entry in "${named[@]}"; do known["${entry%%: *}"]=1; done
while IFS= read -r name; do
  [ -n "$name" ] || continue
  if [ -z "${known[$name]:-}" ]; then
    echo "check-state: mutable state outside the named places: $name"
    status=1
  fi
  unset "known[$name]"
done <<<"$found"
for gone in "${!known[@]}"; do echo "check-state: named but gone (take it off the list): $gone"; done
[ $status -eq 0 ] && echo "check-state: every mutable static is one of the ${#named[@]} named places"
exit $status
