#!/usr/bin/env bash
# The tests' share of the code: non-blank, non-comment lines of the C++ in
# tests/ and fuzz/ against those of src/. Tests that outgrow a third of the
# code are restating it; the check fails so that the next change merges
# cases into tables instead of adding to them.
#   tools/check-tests.sh
set -euo pipefail
cd "$(dirname "$0")/.."

# Lines that are not blank and not only a comment ("//", or a line of a
# "/* ... */" block, which starts with "/*" or "*").
count() {
  find "$@" -type f \( -name '*.cc' -o -name '*.h' \) -print0 | xargs -0 cat |
    sed -e 's://.*$::' | grep -v -e '^\s*$' -e '^\s*\*' -e '^\s*/\*' | wc -l
}
code=$(count src)
tests=$(count tests fuzz)
percent=$((tests * 100 / code))
echo "tests and fuzz targets: $tests lines, code: $code lines ($percent %)"
if [ $((tests * 3)) -gt "$code" ]; then
  echo "check-tests: the tests are more than a third of the code" >&2
  exit 1
fi
