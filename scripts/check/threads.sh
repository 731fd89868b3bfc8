#!/bin/sh
# One thread suffices: nothing that we build asks for another. (Names are looked up by the C library, which keeps a thread
# of its own for that.)
set -eu
scripts/configure release build
cmake --build build --target plx_program >/dev/null
looked=0
for file in build/lib/*.so build/bin/plx; do
    if nm --dynamic --undefined-only "$file" | grep -E 'pthread_create|thrd_create|_ZNSt6thread|[ _]clone3?(@|$)'; then
        echo "threads: $file starts one" >&2
        exit 1
    fi
    looked=$((looked + 1))
done
[ "$looked" -gt 5 ]
echo "threads: none of $looked libraries and programs starts one"
