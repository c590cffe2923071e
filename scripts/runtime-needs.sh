#!/usr/bin/env bash
# What a built module needs from the device, read from its ELF headers without loading it:
#   scripts/runtime-needs.sh MODULE           the report
#   scripts/runtime-needs.sh --check MODULE   the report, then exit 1 if the module needs more
#                                             than cmake/device-needs.txt allows
# Report lines (device-needs.txt has the same lines, without what follows "--"):
#   needed  LIBRARY                   a shared library the loader must find (DT_NEEDED)
#   runpath RUNPATH|RPATH DIRS        a search path the module carries
#   version FAMILY X.Y -- SYMBOLS     the highest symbol version of a family (GLIBC, GLIBCXX,
#                                     CXXABI, GCC, ...) and the symbols that need exactly it
#   export  SYMBOL                    a symbol the module defines for others
# The check fails on a library not allowed, on a version past the allowed one of its family
# (or of a family not listed), on any export other than the allowed ones or a missing one, and
# on any search path: the recorder's loader finds the platform SDK where the recorder keeps it,
# and a folder of the build machine must not reach the device (no line can allow one).
# readelf reads any ELF, so the host's binutils serve for the ARM module.
set -euo pipefail
cd "$(dirname "$0")/.."

check=0
if [ "${1:-}" = "--check" ]; then
  check=1
  shift
fi
if [ $# -ne 1 ] || [ ! -f "$1" ]; then
  echo "usage: scripts/runtime-needs.sh [--check] MODULE" >&2
  exit 2
fi
module="$1"
allowed_file="cmake/device-needs.txt"
readelf="${READELF:-readelf}"

report() {
  LC_ALL=C "$readelf" -W -d "$module" |
    sed -n -e 's/.*(NEEDED).*\[\(.*\)\]$/needed \1/p' -e 's/.*(\(RUNPATH\|RPATH\)).*\[\(.*\)\]$/runpath \1 \2/p'
  # Undefined symbols carry "name@VERSION"; defined ones with default visibility are exports.
  LC_ALL=C "$readelf" -W --dyn-syms "$module" | awk '
    $1 ~ /^[0-9]+:$/ && NF >= 8 {
      name = $8
      if ($7 == "UND") {
        if (split(name, part, "@") < 2) next
        ver = part[2]
        if (!match(ver, /_[0-9][0-9.]*$/)) { fam = ver; num = "0" }
        else { fam = substr(ver, 1, RSTART - 1); num = substr(ver, RSTART + 1) }
        print "sym", fam, num, part[1]
      } else if (($5 == "GLOBAL" || $5 == "WEAK") && $6 == "DEFAULT") {
        sub(/@.*/, "", name)
        print "export", name
      }
    }' | sort -k1,1 -k2,2 -k3,3V -k4,4 | awk '
    $1 == "export" { exports[++n] = $2; next }
    # Sorted by family, then version: the last rows of a family are its highest version.
    $2 != fam { if (fam != "") print "version", fam, top, "--" syms; fam = $2; top = ""; syms = "" }
    $3 != top { top = $3; syms = "" }
    { syms = syms " " $4 }
    END {
      if (fam != "") print "version", fam, top, "--" syms
      for (i = 1; i <= n; ++i) print "export", exports[i]
    }'
}

lines="$(report)"
echo "$lines"
[ "$check" -eq 1 ] || exit 0

allowed="$(grep -Ev '^[[:space:]]*(#|$)' "$allowed_file")"
failed=0
fail() {
  echo "runtime-needs: $*" >&2
  failed=1
}
while read -r kind name value _; do
  case "$kind" in
    needed | export)
      grep -qxF "$kind $name" <<<"$allowed" || fail "$kind $name is not in $allowed_file" ;;
    runpath)
      fail "the module carries a search path ($name $value): the device's loader must find its libraries itself" ;;
    version)
      limit="$(awk -v f="$name" '$1 == "version" && $2 == f { print $3 }' <<<"$allowed")"
      if [ -z "$limit" ]; then
        fail "symbol versions of $name are not in $allowed_file ($name $value)"
      elif [ "$(printf '%s\n%s\n' "$limit" "$value" | sort -V | tail -n1)" != "$limit" ]; then
        fail "$name $value is past the allowed $name $limit: $(grep "^version $name " <<<"$lines" | sed 's/.*-- //')"
      fi ;;
  esac
done <<<"$lines"
while read -r kind name _; do
  [ "$kind" = "export" ] || continue
  grep -qxF "export $name" <<<"$lines" || fail "export $name is missing"
done <<<"$allowed"
if [ "$failed" -ne 0 ]; then
  echo "runtime-needs: $module needs more than $allowed_file allows" >&2
  exit 1
fi
echo "runtime-needs: within $allowed_file"
