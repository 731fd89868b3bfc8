#!/bin/sh
# One thread suffices, and nothing that we build starts another: every test passes with the thread sanitizer.
set -eu
scripts/configure tsan build-tsan PLX_TESTS=ON
cmake --build build-tsan
log=build-tsan/tests.log status=0
scripts/run-tests build-tsan >"$log" 2>&1 || status=$?
[ "$status" -eq 0 ] || cat "$log"
echo "threads: $(tail -n 1 "$log")"
exit "$status"
