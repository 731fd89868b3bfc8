#!/bin/sh
# Every tracked C and C++ file is as clang-format leaves it, and no line, comments included, is beyond 120 columns.
set -eu
files=$(git -c safe.directory='*' ls-files '*.c' '*.h' '*.cpp' '*.hpp')
[ -n "$files" ] || { echo "format: no files?" >&2; exit 1; }
status=0
for file in $files; do
    [ ! -f "$file" ] || echo "$file"
done | xargs -P "$(nproc)" -n 8 clang-format-14 --dry-run -Werror --ferror-limit=1 || status=1
# shellcheck disable=SC2086  # no file name here has a space
if LC_ALL=C.UTF-8 grep -nE '^.{121}' $files; then
    echo "format: these lines are too long" >&2
    status=1
fi
exit "$status"
