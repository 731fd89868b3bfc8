#!/bin/sh
# The manual pages are well formed, and refer to pages that are there (of ours; the system's are not looked for).
set -eu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp docs/man/*.[0-9] "$work"
awk -f docs/man/attributes.awk docs/attributes.md >"$work/plx-attributes.7"

status=0
for page in "$work"/*; do
    # A sentence to a line is a rule for pages that are written, not for one that is made.
    mandoc -T lint -W warning "$page" | grep -v 'new sentence, new line' && status=1
done
# shellcheck disable=SC2013  # no page name has a space
for page in $(sed -nE 's/^\.Xr ((plx|libplx|fp_udp)[a-z_-]*) ([0-9]).*/\1.\3/p' "$work"/* | sort -u); do
    [ -f "$work/$page" ] || { echo "manual: no page $page" >&2; status=1; }
done
exit "$status"
