#!/usr/bin/env bash
# Makes Debian's source package PACKAGE known to apt, for `apt-get source`.
# When no configured source serves it, source entries are added beside the
# machine's own binary entries: the same archives, suites of this release
# only, in the format they are written in (deb822 .sources files or one-line
# sources.list files). Nothing is named here; everything comes from apt's
# configuration (APT_CONFIG is honoured).
# Usage: tools/ci/deb-src.sh PACKAGE
#        tools/ci/deb-src.sh --print   (show the entries it would add, change nothing)
set -euo pipefail
package=${1:?usage: $0 PACKAGE | --print}

known() { [ -n "$(apt-cache showsrc --only-source "$package" 2>/dev/null)" ]; }
[ "$package" = --print ] || ! known || exit 0

SUDO=""
[ "$(id -u)" = 0 ] || SUDO=sudo

sourcelist=/etc/apt/sources.list
sourceparts=/etc/apt/sources.list.d
eval "$(apt-config shell sourcelist Dir::Etc::sourcelist/f sourceparts Dir::Etc::sourceparts/d)"
sourceparts=${sourceparts%/}
# shellcheck disable=SC1091 # the machine's own release file
codename=$(. /etc/os-release && echo "${VERSION_CODENAME:-}")
[ -n "$codename" ] || { echo "deb-src: no release codename in /etc/os-release" >&2; exit 1; }

# deb822: every enabled stanza whose Types include "deb", with Types
# "deb-src" and only the suites of this release; other fields (URIs,
# Components, Signed-By with its continuation lines) as they are.
from_deb822() {
  awk -v codename="$codename" '
    BEGIN { RS = ""; FS = "\n" }
    {
      types = ""; suites = ""; enabled = "yes"; body = ""
      for (i = 1; i <= NF; i++) {
        line = $i
        if (line ~ /^#/) continue
        key = tolower(line); sub(/:.*/, "", key)
        value = line; sub(/^[^:]*:[ \t]*/, "", value)
        if (line !~ /^[ \t]/ && key == "types") { types = value; continue }
        if (line !~ /^[ \t]/ && key == "suites") { suites = value; continue }
        if (line !~ /^[ \t]/ && key == "enabled") enabled = tolower(value)
        body = body line "\n"
      }
      if (enabled == "no" || (" " types " ") !~ /[ \t]deb[ \t]/) next
      n = split(suites, s, /[ \t]+/); kept = ""
      for (i = 1; i <= n; i++) if (s[i] == codename || index(s[i], codename "-") == 1) kept = kept " " s[i]
      if (kept == "") next
      printf "Types: deb-src\nSuites:%s\n%s\n", kept, body
    }' "$@"
}

# One-line entries: "deb [options] URI SUITE COMPONENT..." of this release.
from_one_line() {
  awk -v codename="$codename" '
    $1 != "deb" { next }
    {
      i = 2
      if ($2 ~ /^\[/) { while (i <= NF && $i !~ /\]$/) i++; i++ }
      suite = $(i + 1)
      if (suite != codename && index(suite, codename "-") != 1) next
      sub(/^[ \t]*deb/, "deb-src"); print
    }' "$@"
}

shopt -s nullglob
deb822=("$sourceparts"/*.sources)
one_line=("$sourceparts"/*.list)
[ -f "$sourcelist" ] && one_line=("$sourcelist" "${one_line[@]}")

# Source entries already there (the lists may just be stale): update only.
if [ "$package" != --print ] && cat /dev/null "${deb822[@]}" "${one_line[@]}" \
    | grep -Eiq '^[[:space:]]*(types:.*[[:space:]]deb-src([[:space:]]|$)|deb-src[[:space:]])'; then
  $SUDO apt-get update -qq
  known || { echo "deb-src: apt knows no source package $package" >&2; exit 1; }
  exit 0
fi

out822=""
outlist=""
[ "${#deb822[@]}" -eq 0 ] || out822=$(from_deb822 "${deb822[@]}")
[ "${#one_line[@]}" -eq 0 ] || outlist=$(from_one_line "${one_line[@]}")
if [ -z "$out822" ] && [ -z "$outlist" ]; then
  echo "deb-src: no binary entry of $codename to derive a source entry from" >&2
  exit 1
fi
if [ "$package" = --print ]; then
  [ -z "$out822" ] || printf '# %s\n%s\n' "$sourceparts/qrncam-deb-src.sources" "$out822"
  [ -z "$outlist" ] || printf '# %s\n%s\n' "$sourceparts/qrncam-deb-src.list" "$outlist"
  exit 0
fi
[ -z "$out822" ] || printf '%s\n' "$out822" | $SUDO tee "$sourceparts/qrncam-deb-src.sources" >/dev/null
[ -z "$outlist" ] || printf '%s\n' "$outlist" | $SUDO tee "$sourceparts/qrncam-deb-src.list" >/dev/null
echo "deb-src: added source entries for $codename beside the configured binary ones"
$SUDO apt-get update -qq
known || { echo "deb-src: apt still knows no source package $package" >&2; exit 1; }
