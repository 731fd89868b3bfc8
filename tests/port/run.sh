#!/bin/sh
# run.sh SOURCE WORK: builds the library alone against the test doubles as a platform of their own, and runs a program on it
# that calls everything.
set -eu
source=$1
work=$2
: "${CC:=cc}" "${CXX:=c++}"
if command -v ccache >/dev/null; then
    export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache
fi
rm -rf "$work"
mkdir -p "$work"
protobuf=$(pkg-config --cflags --libs libprotobuf-c)
# shellcheck disable=SC2086 # flags are words
$CXX -std=c++20 -shared -fPIC -Wall -Wextra -Werror -I"$source/platform/include" -I"$source/tests" "$source/tests/port/platform.cpp" \
    "$source/tests/support/store.cpp" "$source/tests/support/platform.cpp" -o "$work/libswitch_platform.so" $protobuf
cmake -S "$source" -B "$work/build" -G Ninja -DPLX_PLATFORM=external -DPLX_PLATFORM_LIBRARIES="$work/libswitch_platform.so" >"$work/log"
cmake --build "$work/build" >>"$work/log" || { cat "$work/log"; exit 1; }
# shellcheck disable=SC2086
$CC -std=c99 -pedantic -Wall -Wextra -Werror -I"$source/include" -I"$work/build/proto" -c "$source/tests/port/every_call.c" -o "$work/every_call.o" $protobuf
# shellcheck disable=SC2086
$CC "$work/every_call.o" -o "$work/every_call" -L"$work/build/lib" -lplx -L"$work" -lswitch_platform -Wl,-rpath,"$work/build/lib:$work" $protobuf
"$work/every_call"

# What the library exports and the program does not call; the records' functions are the generator's.
nm -u "$work/every_call.o" | awk '{ print $2 }' | sort >"$work/called"
nm -D --defined-only "$work/build/lib/libplx.so" | awk '$2 == "T" { sub(/@.*/, "", $3); print $3 }' | grep -v '^s_policy__' | sort >"$work/exported"
if comm -13 "$work/called" "$work/exported" | grep .; then
    echo "these exported functions are not called by every_call.c" >&2
    exit 1
fi
