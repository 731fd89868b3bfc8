#!/bin/sh
# The Debian packages, on a machine that has nothing else: built, looked over by lintian, installed, upgraded from a version before
# with the policy kept, tried by their own test, and purged without a trace. The machine is a folder with a bare Debian; making one needs
# root and a mirror. Where it cannot be made, this ends with 77, "not done", once the packages are built and looked over.
set -eu
dir=build-deb
root=$PWD/$dir/root
mkdir -p "$dir"

# What runs in the folder is gone when its first process ends.
inside() {
    unshare --mount --pid --fork --kill-child --mount-proc="$root/proc" chroot "$root" \
        env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root DEBIAN_FRONTEND=noninteractive \
        http_proxy="${http_proxy:-}" https_proxy="${https_proxy:-}" "$@"
}

# The distribution's own sources are those of this machine.
make_bare() {
    [ ! -f "$dir/bare.tar" ] || return 0
    rm -rf "$root"
    cat /etc/apt/sources.list 2>/dev/null >"$dir/one-line.list" || true
    sources=$(find /etc/apt/sources.list.d -name 'debian.sources' 2>/dev/null)
    mmdebstrap --variant=minbase --mode=root --format=directory --dpkgopt=force-unsafe-io --include=ca-certificates \
        bookworm "$root" "${sources:-$dir/one-line.list}" || return 1
    cp -a /etc/apt/apt.conf.d "$root/etc/apt/"
    cp -a /etc/ssl/certs "$root/etc/ssl/"
    printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d"
    chmod +x "$root/usr/sbin/policy-rc.d"
    inside true || return 1
    tar -C "$root" -cf "$dir/bare.tmp" . || return 1
    mv "$dir/bare.tmp" "$dir/bare.tar"
}

# Downloads while the packages are compiled. They are tried without what debuggers want, which takes a fifth of the time.
rm -f "$dir/bare.failed"
making=''
if [ "$(id -u)" -eq 0 ]; then
    { make_bare || touch "$dir/bare.failed"; } >"$dir/bare.log" 2>&1 &
    making=$!
    trap 'kill "$making" 2>/dev/null || true' EXIT
else
    echo "this user is not root" | tee "$dir/bare.log" >"$dir/bare.failed"
fi
DEB_BUILD_OPTIONS=noautodbgsym DEB_CFLAGS_APPEND=-g0 DEB_CXXFLAGS_APPEND=-g0 scripts/deb "$dir" >/dev/null
lintian --allow-root --fail-on error,warning "$dir"/*.changes >"$dir/lintian" 2>&1 ||
    { cat "$dir/lintian" >&2; exit 1; }
echo "packages: lintian has nothing to say"
wait $making
if [ -f "$dir/bare.failed" ]; then
    tail -n 5 "$dir/bare.log"
    echo "packages: NOT tried in a bare Debian, which could not be made here"
    exit 77
fi
rm -rf "$root"
mkdir -p "$root"
tar -C "$root" -xf "$dir/bare.tar"
mkdir "$root/new" "$root/before"
cp "$dir"/*.deb "$root/new/"
cp debian/tests/installed "$root/new/"
cp -L /etc/resolv.conf /etc/hosts "$root/etc/"
for package in "$root"/new/*.deb; do
    dpkg-deb --raw-extract "$package" "$dir/before"
    sed -i -E '/^(Version|Depends)/s/1\.0\.0/0.9.0/g' "$dir/before/DEBIAN/control"
    dpkg-deb --root-owner-group --build "$dir/before" "$root/before/$(basename "$package")" >/dev/null
    rm -rf "$dir/before"
done
cp packaging/outside/packages "$root/new/"
inside /bin/sh /new/packages >"$dir/machine.log" 2>&1 ||
    { tail -30 "$dir/machine.log" >&2; exit 1; }
grep '^packages: ' "$dir/machine.log"
rm -rf "$root"
