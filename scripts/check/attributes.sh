#!/bin/sh
# attributes.sh [accept]: the tables of docs/attributes.md are those that the forms of the attributes make
# (records/attribute_tables.cpp). `scripts/check/attributes.sh accept` makes them anew.
set -eu
document=docs/attributes.md
made=$(mktemp)
trap 'rm -f "$made"' EXIT
scripts/configure release build
cmake --build build --target bin/attribute_tables >/dev/null

build/bin/attribute_tables <"$document" >"$made"
if [ "${1:-}" = accept ]; then
    cat "$made" >"$document"
fi
diff -u "$document" "$made" || { echo "attributes: if this is meant, scripts/check/attributes.sh accept" >&2; exit 1; }
echo "attributes: the document has $(grep -c '^| ' "$made") rows, as made"
