#!/bin/sh
# The manual pages are well formed, name the project and its version in header and footer, and refer to pages that are there
# (of ours; the system's are not looked for). A page that is another's second name is a link to it.
set -eu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp docs/man/*.[0-9] "$work"
awk -f docs/man/attributes.awk docs/attributes.md >"$work/plx-attributes.7"

status=0
version=$(sed -nE 's/^project\(libplx VERSION ([0-9.]+).*/\1/p' CMakeLists.txt)
for page in "$work"/*; do
    if target=$(sed -nE '1s/^\.so man[0-9]\///p' "$page") && [ -n "$target" ]; then
        name=$(basename "${page%.*}")
        grep -qE "^\.Nm $name( ,)?\$" "$work/$target" || { echo "manual: $target does not name $name" >&2; status=1; }
        continue
    fi
    { grep -qE '^\.Dt .* libplx$' "$page" && grep -qx ".Os libplx $version" "$page"; } ||
        { echo "manual: $(basename "$page") does not name libplx $version" >&2; status=1; }
    # A sentence to a line is a rule for pages that are written, not for one that is made.
    mandoc -T lint -W warning "$page" | grep -v 'new sentence, new line' && status=1
done
# shellcheck disable=SC2013  # no page name has a space
for page in $(sed -nE 's/^\.Xr ((plx|libplx|fp_udp)[a-z_-]*) ([0-9]).*/\1.\3/p' "$work"/* | sort -u); do
    [ -f "$work/$page" ] || { echo "manual: no page $page" >&2; status=1; }
done
exit "$status"
