#!/bin/sh
# The second compiler builds everything but the tests without a warning.
set -eu
scripts/configure clang build-clang PLX_TESTS=OFF CMAKE_COMPILE_WARNING_AS_ERROR=ON
cmake --build build-clang
