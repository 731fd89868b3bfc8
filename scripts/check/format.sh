#!/bin/sh
# Every tracked C and C++ file is as clang-format leaves it.
set -eu
files=$(git -c safe.directory='*' ls-files '*.c' '*.h' '*.cpp' '*.hpp')
[ -n "$files" ] || { echo "format: no files?" >&2; exit 1; }
echo "$files" | tr '\n' '\0' | xargs -0 clang-format-14 --dry-run -Werror
