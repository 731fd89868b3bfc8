#!/bin/sh
# The second compiler builds everything but the tests without a warning. What it builds is what lint looks at and what is
# fuzzed.
set -eu
scripts/clang-build
