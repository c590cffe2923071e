#!/usr/bin/env bash
# The same commit and toolchain must give the same bytes wherever they are built: a firmware
# team signs what it ships by its hash. This clones one commit into two fresh folders of
# different names and depths, packages each (scripts/package-armhf.sh, the module alone, no
# tests) and compares byte for byte the .deb, the .tar.gz, the stripped module and its debug
# file. On a difference it says what differs and exits 1.
#   scripts/check-reproducible.sh [COMMIT]    default HEAD (uncommitted changes are not seen)
set -euo pipefail
cd "$(dirname "$0")/.."
commit="$(git rev-parse --verify "${1:-HEAD}^{commit}")"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
first="$work/a/src"
second="$work/bb/elsewhere/truckservice"
for tree in "$first" "$second"; do
  git clone --quiet --no-checkout "$PWD" "$tree"
  git -C "$tree" checkout --quiet --detach "$commit"
  echo "check-reproducible: packaging $commit in $tree"
  if ! "$tree/scripts/package-armhf.sh" -DTRUCK_BUILD_TESTS=OFF >"$tree.log" 2>&1; then
    cat "$tree.log" >&2
    echo "check-reproducible: packaging in $tree failed" >&2
    exit 1
  fi
done

# What differs, in terms a reader can act on: the files and modes of the packages, and the
# texts of the ELF files (a path or a date that leaked shows up there).
explain() {
  local a="$1" b="$2"
  case "$a" in
    *.deb)
      diff <(dpkg-deb -c "$a" | awk '{ print $1, $2, $4, $5, $6 }') \
           <(dpkg-deb -c "$b" | awk '{ print $1, $2, $4, $5, $6 }') || true
      diff <(dpkg-deb -I "$a") <(dpkg-deb -I "$b") || true
      mkdir -p "$work/x/a" "$work/x/b"
      dpkg-deb -x "$a" "$work/x/a"
      dpkg-deb -x "$b" "$work/x/b"
      diff -r "$work/x/a" "$work/x/b" || true ;;
    *.tar.gz)
      diff <(tar -tvzf "$a") <(tar -tvzf "$b") || true ;;
    *)
      echo "$(cmp -l "$a" "$b" | wc -l) bytes differ"
      diff <(readelf -n "$a" | grep 'Build ID') <(readelf -n "$b" | grep 'Build ID') || true
      diff <(strings -a -n 8 "$a") <(strings -a -n 8 "$b") | head -n 40 || true ;;
  esac
}

failed=0
cd "$first/build/armhf"
for file in truckservice_*_armhf.deb truckservice-*-armhf.tar.gz ship/libtruckservice.so \
            ship/libtruckservice.so.debug; do
  other="$second/build/armhf/$file"
  if [ ! -f "$file" ] || [ ! -f "$other" ]; then
    echo "check-reproducible: $file is missing from one of the two builds" >&2
    failed=1
  elif cmp -s "$file" "$other"; then
    echo "identical  $(sha256sum "$file")"
  else
    echo "check-reproducible: $file differs between the two folders" >&2
    sha256sum "$file" "$other" >&2
    explain "$file" "$other" >&2
    failed=1
  fi
done
exit "$failed"
