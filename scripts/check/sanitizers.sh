#!/bin/sh
# The second compiler builds everything without a warning, and every test passes with its address and undefined-behaviour
# sanitizers in all that we build.
set -eu
scripts/clang-build
ASAN_OPTIONS=strict_string_checks=1:detect_stack_use_after_return=1:check_initialization_order=1
UBSAN_OPTIONS=print_stacktrace=1
export ASAN_OPTIONS UBSAN_OPTIONS
log=build-clang/tests.log status=0
scripts/run-tests build-clang -j $(($(nproc) * 3)) >"$log" 2>&1 || status=$?
[ "$status" -eq 0 ] || cat "$log"
echo "sanitizers: $(tail -n 1 "$log")"
exit "$status"
