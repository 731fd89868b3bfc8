#!/bin/sh
# attributes.sh [accept]: the tables of docs/attributes.md are those that the forms of the attributes make
# (records/attribute_tables.cpp), and python/plx/_forms.py is made from those tables. `scripts/check/attributes.sh accept`
# makes both anew.
set -eu
document=docs/attributes.md
made=$(mktemp)
trap 'rm -f "$made"' EXIT
scripts/configure release build
cmake --build build --target bin/attribute_tables >/dev/null

build/bin/attribute_tables <"$document" >"$made"
if [ "${1:-}" = accept ]; then
    cat "$made" >"$document"
    python/make_forms.py >python/plx/_forms.py
fi
diff -u "$document" "$made" || { echo "attributes: if this is meant, scripts/check/attributes.sh accept" >&2; exit 1; }
python/make_forms.py | diff -u python/plx/_forms.py - || { echo "attributes: the Python module's are not those" >&2; exit 1; }
echo "attributes: the document has $(grep -c '^| ' "$made") rows, as made"
