#!/usr/bin/env bash
# Checks the C and C++ files of the repository (those git tracks or would add; build folders
# are ignored) against .clang-format, without changing them. Prints each file that differs and
# exits 1 when any does. `scripts/check-format.sh --fix` formats them in place instead.
set -euo pipefail
cd "$(dirname "$0")/.."
command -v clang-format >/dev/null || scripts/deps.sh clang-format

mode=(--dry-run --Werror)
[ "${1:-}" = "--fix" ] && mode=(-i)
mapfile -t files < <(git ls-files --cached --others --exclude-standard -- '*.c' '*.cpp' '*.h' | sort -u)
failed=()
for file in "${files[@]}"; do
  [ -f "$file" ] || continue
  clang-format "${mode[@]}" "$file" 2>/dev/null || failed+=("$file")
done
if [ ${#failed[@]} -gt 0 ]; then
  printf 'check-format: not formatted with .clang-format: %s\n' "${failed[@]}" >&2
  echo "check-format: scripts/check-format.sh --fix formats them" >&2
  exit 1
fi
echo "check-format: ${#files[@]} files formatted"
