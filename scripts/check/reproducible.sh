#!/bin/sh
# What is installed does not depend on where it was built: the sources are built once more in another folder, and both
# installations are the same, byte for byte. The other folder stays, so that the next time only what changed is built.
set -eu
elsewhere=build-elsewhere
scripts/configure release build
cmake --build build --target plx_program manual >/dev/null
rm -rf "$elsewhere/longer-name/source"
mkdir -p "$elsewhere/longer-name/source"
git -c safe.directory='*' ls-files -z | tar --null --files-from=- --create --ignore-failed-read 2>/dev/null |
    tar --extract --directory="$elsewhere/longer-name/source"
(cd "$elsewhere/longer-name/source" && scripts/configure release ../tree PLX_TESTS=OFF && cmake --build ../tree --target plx_program manual) \
    >"$elsewhere/log" 2>&1 || { tail -20 "$elsewhere/log" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
DESTDIR=$work/here cmake --install build --prefix /usr >/dev/null
DESTDIR=$work/there cmake --install "$elsewhere/longer-name/tree" --prefix /usr >/dev/null
diff -r "$work/here" "$work/there" || { echo "reproducible: installed files tell where they were built" >&2; exit 1; }
echo "reproducible: $(find "$work/here" -type f | wc -l) installed files are the same from two folders"
