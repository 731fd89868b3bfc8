#!/bin/sh
# Every test passes with the address and undefined-behaviour sanitizers in everything that we build, and the first
# compiler builds all of it, tests included, without a warning.
set -eu
scripts/configure asan build-asan PLX_TESTS=ON CMAKE_COMPILE_WARNING_AS_ERROR=ON
cmake --build build-asan
ASAN_OPTIONS=strict_string_checks=1:detect_stack_use_after_return=1:check_initialization_order=1
UBSAN_OPTIONS=print_stacktrace=1
export ASAN_OPTIONS UBSAN_OPTIONS
log=build-asan/tests.log status=0
scripts/run-tests build-asan >"$log" 2>&1 || status=$?
[ "$status" -eq 0 ] || cat "$log"
echo "sanitizers: $(tail -n 1 "$log")"
exit "$status"
