#!/usr/bin/env bash
# clang-format over the project's own C and C++ sources: --check (default) fails
# on any difference, --fix rewrites the files.
set -euo pipefail
cd "$(dirname "$0")/.."
mode=${1:---check}
mapfile -t files < <(git ls-files --cached --others --exclude-standard -- '*.c' '*.cpp' '*.h' | grep -v '^fuzz/corpus')
[ ${#files[@]} -eq 0 ] && exit 0
if [ "$mode" = "--fix" ]; then
  clang-format -i "${files[@]}"
else
  clang-format --dry-run --Werror "${files[@]}"
  echo "format ok: ${#files[@]} files"
fi
