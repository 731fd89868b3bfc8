#!/bin/sh
# What is installed does not depend on where it was built: no installed file names the folder that it was built in, and the
# libraries, built once more in another folder, are the same byte for byte. The other folder stays, so that the next time
# only what changed is built.
set -eu
elsewhere=build-elsewhere
scripts/configure release build
cmake --build build --target plx_program manual >/dev/null
rm -rf "$elsewhere/longer-name/source"
mkdir -p "$elsewhere/longer-name/source"
git -c safe.directory='*' ls-files -z | tar --null --files-from=- --create --ignore-failed-read 2>/dev/null |
    tar --extract --directory="$elsewhere/longer-name/source"
libraries='plx tq_mom_impl tq_time tq_zlog ssat cgstctrl'
# shellcheck disable=SC2086  # one word per target is meant
(cd "$elsewhere/longer-name/source" && scripts/configure release ../tree PLX_TESTS=OFF && cmake --build ../tree --target $libraries) \
    >"$elsewhere/log" 2>&1 || { tail -20 "$elsewhere/log" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
DESTDIR=$work cmake --install build --prefix /usr >/dev/null
if grep -rlF -- "$PWD" "$work"; then
    echo "reproducible: these files tell where they were built" >&2
    exit 1
fi
for library in $libraries; do
    cmp "build/lib/lib$library.so" "$elsewhere/longer-name/tree/lib/lib$library.so"
done
echo "reproducible: $(find "$work" -type f | wc -l) files do not tell where they were built; libraries from two folders are the same"
