#!/bin/sh
# An installed tree is complete: a project from outside is built against it, in C and in C++, with pkg-config and with
# CMake, and its programs run. The tree is moved first, so that nothing in it may know where it was made.
set -eu
scripts/configure release build
cmake --build build >/dev/null
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install build --prefix "$work/made" >/dev/null
mv "$work/made" "$work/tree"
libdir=$(dirname "$(find "$work/tree" -name 'libplx.so')")
warnings="-Wall -Wextra -pedantic -Werror"

export PKG_CONFIG_PATH="$libdir/pkgconfig"
flags="$(pkg-config --cflags plx plx-platform) -Wl,-rpath,$libdir"
libs=$(pkg-config --libs plx plx-platform)
# shellcheck disable=SC2086  # lists of flags are meant
{
    gcc -std=c99 $warnings $flags packaging/outside/in_c.c -o "$work/in_c" $libs
    g++ -std=c++17 $warnings $flags packaging/outside/in_cxx.cpp -o "$work/in_cxx" $libs
}
cmake -S packaging/outside -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/tree" \
    -DCMAKE_C_FLAGS="$warnings" -DCMAKE_CXX_FLAGS="$warnings" >"$work/cmake.log" || { cat "$work/cmake.log"; exit 1; }
cmake --build "$work/build" >"$work/ninja.log" || { cat "$work/ninja.log"; exit 1; }

for program in "$work/in_c" "$work/in_cxx" "$work/build/in_c" "$work/build/in_cxx" "$work/tree/bin/plx --help"; do
    $program >"$work/said" || { echo "install: $program failed" >&2; cat "$work/said"; exit 1; }
done
for file in man/man1/plx.1 man/man3/libplx.3 plx/redis/plx-store.conf plx/systemd/plx-node@.service; do
    [ -f "$work/tree/share/$file" ] || { echo "install: no share/$file" >&2; exit 1; }
done
echo "install: four programs were built outside and ran"
