#!/bin/sh
# run.sh SOURCE WORK: builds the library alone against the test doubles as a platform of their own, and runs a program on it.
set -eu
source=$1
work=$2
: "${CC:=cc}" "${CXX:=c++}"
rm -rf "$work"
mkdir -p "$work"
protobuf=$(pkg-config --cflags --libs libprotobuf-c)
# shellcheck disable=SC2086 # flags are words
$CXX -std=c++20 -shared -fPIC -Wall -Wextra -Werror -I"$source/platform/include" -I"$source/tests" "$source/tests/port/platform.cpp" \
    "$source/tests/support/store.cpp" "$source/tests/support/platform.cpp" -o "$work/libswitch_platform.so" $protobuf
cmake -S "$source" -B "$work/build" -G Ninja -DPLX_PLATFORM=external -DPLX_PLATFORM_LIBRARIES="$work/libswitch_platform.so" >"$work/log"
cmake --build "$work/build" >>"$work/log" || { cat "$work/log"; exit 1; }
# shellcheck disable=SC2086
$CC -std=c99 -Wall -Wextra -Werror -I"$source/include" -I"$work/build/proto" "$source/tests/port/program.c" -o "$work/program" \
    -L"$work/build/lib" -lplx -L"$work" -lswitch_platform -Wl,-rpath,"$work/build/lib:$work" $protobuf
"$work/program"
