#!/bin/sh
# An installed tree is complete: a project from outside is built against it, in C and in C++, with pkg-config and with
# CMake, and its programs run. The tree is moved first, so that nothing in it may know where it was made.
#
# What the guide tells to type is typed against that tree and a real Redis: its program and the examples end well with
# two live nodes, and tell by their exit codes when a node is missing, and when the store refuses writes or is away.
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
for file in man/man1/plx.1 man/man3/libplx.3 man/man5/plx-json.5 plx/schema/plx-1.json plx/prometheus/plx-alerts.yml plx/prometheus/plx-dashboard.json plx/redis/plx-store.conf plx/systemd/plx-node@.service; do
    [ -f "$work/tree/share/$file" ] || { echo "install: no share/$file" >&2; exit 1; }
done
./run demo >"$work/said" 2>&1 || { cat "$work/said" >&2; exit 1; }
echo "install: four programs were built outside and ran"

block() {
    awk -v language=sh -v block="$1" -f tests/docs/snippets.awk docs/guide.md | sed "s|/run/plx-store/store.sock|$work/store.sock|"
}
awk -f tests/docs/snippets.awk docs/guide.md >"$work/guide.c"
cp examples/minimal.c examples/minimal.cpp "$work"
cat >"$work/session" <<END
trap 'kill \$(jobs -p) 2>/dev/null; wait' EXIT
# ends CODE COMMAND...: as it should end
ends() {
    local code=0 expected=\$1
    shift
    "\$@" || code=\$?
    echo "install: \$* ended with \$code"
    [ "\$code" -eq "\$expected" ] || { echo "install: that is not \$expected" >&2; exit 1; }
}
cc minimal.c -o minimal $flags $libs
c++ -std=c++17 minimal.cpp -o minimal_cpp $flags $libs
redis-server --port 0 --unixsocket store.sock --save '' >redis.log &
while ! redis-cli -s store.sock ping >/dev/null 2>&1; do sleep 0.1; done
$(block 1)
./guide own 3 >guide.log 2>&1 &
waiting=\$!
timeout 10 sh -c 'until plx shell guide.fp help >/dev/null 2>&1; do sleep 0.1; done'
$(block 2)
ends 0 ./minimal "\$PLX_STORE" 2
ends 0 ./minimal_cpp "\$PLX_STORE" 2
ends 4 wait \$waiting
ends 0 ./guide uv 2
redis-cli -s store.sock config set maxmemory 1 >/dev/null
ends 3 ./guide epoll 0
ends 3 ./minimal "\$PLX_STORE" 0
ends 3 ./minimal_cpp "\$PLX_STORE" 0
ends 5 ./minimal "unix:\$PWD/nowhere.sock" 0
END
(cd "$work" && PATH=$work/tree/bin:$PATH LD_LIBRARY_PATH=$libdir PLX_SHELL_DIR=$work/shell bash -euo pipefail session >session.log 2>&1) ||
    { cat "$work/session.log" >&2; echo "install: the guide's commands failed" >&2; exit 1; }
echo "install: the guide's commands and the examples ran, and told failures"
