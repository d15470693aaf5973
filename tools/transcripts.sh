#!/usr/bin/env bash
# Shows how the transcripts that the last test run produced differ from the
# ones kept beside the tests, for review. It never changes a kept
# transcript: one is changed only by editing it, line by line.
# Usage: tools/transcripts.sh [BUILD_DIR]   (default build/default)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build/default}
shopt -s nullglob
actual=("$build"/transcripts/*.txt)
if [ ${#actual[@]} -eq 0 ]; then echo "no differing transcripts in $build/transcripts"; exit 0; fi
status=0
for f in "${actual[@]}"; do
  golden=$(head -1 "$f" | sed 's/^# //')
  diff -u --label "$golden" --label "$f (actual)" <(grep -v '^#' "$golden" 2>/dev/null) <(tail -n +2 "$f") || status=1
done
exit $status
