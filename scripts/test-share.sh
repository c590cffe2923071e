#!/usr/bin/env bash
# The tests' share of the code, by lines, measured one way for everyone: every line (blank and
# comment lines too) of the files git tracks or would add, counting C and C++ sources and
# headers, Python, shell and CMake files (.c .cpp .h .py .sh .cmake, CMakeLists.txt). Tests are
# those under tests/ (the suites, their helpers, checks and CMake); code is include/, the
# plug-in's truck_*/, norvixsdk/, host/, bench/, fuzz/, scripts/, cmake/ and the top CMakeLists.
# Prints each area and the tests' share; the aim is at most a third of all lines.
set -euo pipefail
cd "$(dirname "$0")/.."

lines() {
  git ls-files --cached --others --exclude-standard -- "$@" |
    grep -E '\.(c|cpp|h|py|sh|cmake)$|(^|/)CMakeLists\.txt$' | sort -u |
    while read -r file; do [ -f "$file" ] && cat "$file"; done | wc -l
}

code=0
for area in include 'truck_*' norvixsdk host bench fuzz scripts cmake CMakeLists.txt; do
  n=$(lines "$area")
  printf '%-16s %6d\n' "$area" "$n"
  code=$((code + n))
done
tests=$(lines tests)
printf '%-16s %6d\n' code "$code" tests "$tests"
# Two readings of "a third of the code": against the code alone, and as a part of everything
# (code and tests), the one the project's earlier figures used. Both are printed so that a
# figure is always quoted with its reading.
awk -v t="$tests" -v c="$code" 'BEGIN {
  printf "test share: %.1f %% of the code (tests / code), %.1f %% of all lines (tests / (code + tests))\n",
         100 * t / c, 100 * t / (c + t)
  over = t - int((c + t) / 3)
  if (over > 0) printf "tests are %d lines over a third of all lines\n", over
}'
