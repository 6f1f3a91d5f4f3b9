#!/usr/bin/env bash
# The folders' layering, as the README's Development section draws it: a
# folder includes only the folders below it. Checked by CI; prints every
# include that breaks a rule and fails when there is one.
set -euo pipefail
cd "$(dirname "$0")/.."
status=0
# folder: the folders (besides itself) whose headers it may include.
rules=(
  "wire:"
  "platform:"
  "protocol:wire platform"
  "frontend:protocol wire platform"
  "log:platform protocol wire"
  "nls:log platform wire"
  "transport:log platform protocol wire"
  "filter:log nls platform protocol wire"
  "request:transport filter groom log platform protocol wire"
  "groom:log nls platform protocol wire"
  "backup:request filter groom transport log nls platform protocol wire"
  "restore:request transport log nls platform protocol wire"
  "compare:restore groom request transport log nls platform protocol wire"
)
for rule in "${rules[@]}"; do
  folder=${rule%%:*}
  allowed=" $folder ${rule#*:} "
  while IFS= read -r line; do
    file=${line%%:*}
    header=$(sed -E 's/.*#include "([^"]+)".*/\1/' <<<"$line")
    target=${header%%/*}
    if [[ "$allowed" != *" $target "* && "$allowed" != *" $header "* ]]; then
      echo "layering: $file includes $header (src/$folder/ may use:${rule#*:})"
      status=1
    fi
  done < <(grep -rHE '^#include "[a-z_]+/' "src/$folder" || true)
done
[ $status -eq 0 ] && echo "check-layers: every folder includes only what lies below it"
exit $status
