#!/bin/sh
# What Prometheus' own checker says of the pages of plx node and plx metrics, and of the alerts, where it is installed. That alerts
# and dashboard name only numbers that there are is held by a test (numbers.txt), everywhere.
set -eu
command -v promtool >/dev/null || { echo "numbers: skipped: there is no promtool (package prometheus)"; exit 0; }
scripts/configure release build
cmake --build build --target bin/plx >/dev/null
work=$(mktemp -d)
servers=
trap 'kill $servers 2>/dev/null || true; wait; rm -rf "$work"' EXIT
build/bin/plx node --store mem: --metrics "unix:$work/node" 2>"$work/node.log" &
servers=$!
build/bin/plx metrics --store mem: --listen "unix:$work/fleet" 2>"$work/fleet.log" &
servers="$servers $!"
for page in node fleet; do
    timeout 20 sh -c "until grep -qe ready -e serving '$work/$page.log'; do :; done" || { cat "$work/$page.log" >&2; exit 1; }
    tests/support/scrape.py "unix:$work/$page" --page >"$work/$page.page"
    promtool check metrics <"$work/$page.page"
done
promtool check rules packaging/prometheus/plx-alerts.yml
echo "numbers: promtool has nothing to say"
