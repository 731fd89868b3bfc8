#!/bin/sh
# Every public header compiles alone, as C99 and as C++, without a warning. So does one twice included. And the header is
# the manual: to ten lines of code there are seven lines or more of comment, not counting comments behind code.
set -eu
scripts/configure release build
cmake --build build --target s_policy >/dev/null
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
flags="-Wall -Wextra -Wconversion -Wshadow -pedantic -Werror -fsyntax-only -Iinclude -Iplatform/include -Ibuild/proto
       $(pkg-config --cflags libprotobuf-c)"
count=0
for header in include/plx/*.h platform/include/*.h; do
    name=${header#include/} name=${name#platform/include/}
    printf '#include <%s>\n#include <%s>\nextern int plx_one_declaration;\n' "$name" "$name" >"$work/alone.c"
    cp "$work/alone.c" "$work/alone.cpp"
    # shellcheck disable=SC2086  # a list of flags is meant
    for compiler in "gcc -std=c99" "g++ -std=c++11" "g++ -std=c++20" "clang-14 -std=c99" "clang++-14 -std=c++20"; do
        case $compiler in *++*) source=$work/alone.cpp ;; *) source=$work/alone.c ;; esac
        $compiler $flags "$source" || { echo "headers: $name does not stand alone with $compiler" >&2; exit 1; }
    done
    awk '{ sub(/^[ \t]+/, "") } /^$/ { next } inside || /^\/\*/ { ++comment; inside = !/\*\//; next } { ++code }
         END { exit comment < 0.7 * code }' "$header" || { echo "headers: $name says too little" >&2; exit 1; }
    count=$((count + 1))
done
echo "headers: $count headers stand alone"
