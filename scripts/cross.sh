#!/bin/sh
# cross.sh armhf|arm64: builds everything for that architecture into build-<architecture>/, runs all tests and the demo
# under qemu, exchanges records with this machine's own build through a Redis, and prints what the library takes there.
# Needs what scripts/packages.txt names for it, and installs that.
#
# Optimised for space, as for a switch's flash.
set -eu
cd "$(dirname "$0")/.."
architecture=${1:-}
case $architecture in
armhf) triplet=arm-linux-gnueabihf ;;
arm64) triplet=aarch64-linux-gnu ;;
*)
    echo "usage: scripts/cross.sh armhf|arm64" >&2
    exit 1
    ;;
esac
build=$PWD/build-$architecture
root=$build/root

say() {
    echo "$architecture: $*"
}

emulate() {
    scripts/cross/emulate "$architecture" "$root" "$@"
}

# What came out is for the target, and nothing of the host's got in.
is_for_target() {
    found=$("$triplet-readelf" -h "$build"/lib/*.so "$build"/bin/* | sed -n 's/.*Machine: *//p' | sort -u)
    say "libraries and programs are for: $found"
    case $architecture:$found in
    armhf:ARM | arm64:AArch64) ;;
    *) return 1 ;;
    esac
}

# As in `./run demo`, an end with 3 is what it is about.
demo() {
    status=0
    emulate "$build/bin/plx" apply --store mem: --nodes 3 --table-size 1024,1024,48 examples/edge.yaml || status=$?
    [ "$status" -eq 3 ] || {
        say "plx apply ended with $status, not with the 3 that the demo is about" >&2
        return 1
    }
}

scripts/setup test cross "$architecture"
mkdir -p "$build"
scripts/cross/root "$architecture" "$root"
# Look at the warnings: here they are mostly numbers that do not fit 32 bits, which no other build tells.
scripts/configure release "$build" CMAKE_BUILD_TYPE=MinSizeRel PLX_TESTS=ON PLX_TARGET_ROOT="$root" \
    CMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/$architecture.cmake"
cmake --build "$build"
is_for_target
say "the tests"
emulate scripts/run-tests "$build"
say "the demo"
demo
say "the exchange with this machine's own build"
[ -f build/build.ninja ] || scripts/configure release build PLX_TESTS=OFF
cmake --build build --target plx --target bin/plx
scripts/cross/exchange "$architecture" "$build" "$PWD/build"
say "the footprint"
scripts/cross/footprint "$architecture" "$build"
