#!/bin/sh
# abi.sh [accept]: libplx.so.1 keeps the binary interface of the baseline, types and all: nothing removed, changed or
# added without being seen. A change that is meant is made the baseline by `scripts/check/abi.sh accept`.
set -eu
baseline=packaging/libplx.abi
machine=x86_64
if [ "$(uname -m)" != "$machine" ]; then
    echo "abi: the baseline is for $machine, so nothing is compared here"
    exit 0
fi
scripts/configure release build
cmake --build build --target lib/libplx.so.1 >/dev/null

if [ "${1:-}" = accept ]; then
    abidw --headers-dir include/plx --headers-dir build/proto/plx --drop-private-types --exported-interfaces-only \
        --no-corpus-path --no-comp-dir-path --no-elf-needed --no-show-locs --no-parameter-names \
        --no-write-default-sizes build/lib/libplx.so.1 | sed "s|$PWD/||" >"$baseline"
fi
abidiff --harmless "$baseline" build/lib/libplx.so.1
echo "abi: as the baseline has it"
