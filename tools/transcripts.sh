#!/usr/bin/env bash
# Shows how each actual transcript that a failed comparison wrote differs
# from the kept transcript named on its first line, as a unified diff with
# the kept file's own line numbers. It never changes a kept transcript: one
# is changed only by editing it, line by line. Installed as qrncam-transcripts.
# Usage: tools/transcripts.sh [DIR|FILE ...]
#   DIR: the actual transcripts in it and in its transcripts/ (a build
#   directory of this tree, say); none given: build/default of this tree
#   when there is one, else the current directory.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
args=("$@")
if [ ${#args[@]} -eq 0 ]; then
  if [ -d "$root/build/default/transcripts" ]; then args=("$root/build/default"); else args=(.); fi
fi
shopt -s nullglob
actual=()
for a in "${args[@]}"; do
  if [ -d "$a" ]; then actual+=("$a"/*.txt "$a"/transcripts/*.txt); else actual+=("$a"); fi
done
if [ ${#actual[@]} -eq 0 ]; then echo "no actual transcripts in ${args[*]}"; exit 0; fi
status=0
for f in "${actual[@]}"; do
  first=$(head -1 "$f")
  case "$first" in
    "# "*) golden=${first#\# } ;;
    *) echo "$f: not an actual transcript (its first line names no kept one)" >&2; status=2; continue ;;
  esac
  if [ ! -f "$golden" ]; then echo "$f: its kept transcript $golden is missing" >&2; status=1; continue; fi
  diff -u --label "$golden" --label "$f (actual)" "$golden" <(tail -n +2 "$f") || status=1
done
exit $status
