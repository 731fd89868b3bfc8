#!/bin/sh
# What Prometheus' own checker says of the page of a node and of the alerts, where it is installed. That alerts and dashboard
# name only numbers that there are is held by a test (numbers.txt), everywhere.
set -eu
command -v promtool >/dev/null || { echo "numbers: skipped: there is no promtool (package prometheus)"; exit 0; }
scripts/configure release build
cmake --build build --target bin/plx >/dev/null
work=$(mktemp -d)
trap 'kill "$node" 2>/dev/null || true; wait; rm -rf "$work"' EXIT
build/bin/plx node --store mem: --metrics "unix:$work/node" 2>"$work/log" &
node=$!
timeout 20 sh -c "until grep -q ready '$work/log'; do :; done" || { cat "$work/log" >&2; exit 1; }
tests/support/scrape.py "unix:$work/node" --page >"$work/page"
promtool check metrics <"$work/page"
promtool check rules packaging/prometheus/plx-alerts.yml
