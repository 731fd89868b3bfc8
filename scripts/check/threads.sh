#!/bin/sh
# One thread suffices, and nothing that we build starts another: the programs as people run them, on a real server, pass
# with the thread sanitizer.
set -eu
scripts/configure tsan build-tsan PLX_TESTS=ON
cmake --build build-tsan --target bin/road_test
log=build-tsan/tests.log status=0
scripts/run-tests build-tsan -R '^road_test\.' >"$log" 2>&1 || status=$?
[ "$status" -eq 0 ] || cat "$log"
echo "threads: $(tail -n 1 "$log")"
exit "$status"
