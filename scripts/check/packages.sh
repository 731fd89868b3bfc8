#!/bin/sh
# The Debian packages, on a machine that has nothing else: built, looked over by lintian, installed, upgraded from a version before
# with the policy kept, tried by their own test, and purged without a trace. The machine is a folder with a bare Debian; making one needs
# root and a mirror.
set -eu
dir=build-deb
root=$PWD/$dir/root
scripts/deb "$dir" >/dev/null
lintian --allow-root --fail-on error,warning "$dir"/*.changes >"$dir/lintian" 2>&1 ||
    { cat "$dir/lintian" >&2; exit 1; }
echo "packages: lintian has nothing to say"

if [ "$(id -u)" -ne 0 ]; then
    echo "packages: not tried in a bare Debian, which only root can make"
    exit 0
fi
if [ ! -f "$dir/bare.tar" ]; then
    rm -rf "$root"
    mirror=$(sed -nE 's/^URIs: *([^ ]+).*/\1/p; s/^deb (\[[^]]*\] )?([^ ]+) .*/\2/p' /etc/apt/sources.list /etc/apt/sources.list.d/* 2>/dev/null | head -n 1)
    debootstrap --variant=minbase --include=ca-certificates bookworm "$root" "$mirror" >"$dir/debootstrap.log" 2>&1 ||
        { tail -5 "$dir/debootstrap.log" >&2; exit 1; }
    rm -f "$root/etc/apt/sources.list"
    cp -a /etc/apt/sources.list* /etc/apt/apt.conf.d "$root/etc/apt/" 2>/dev/null || true
    cp -a /etc/ssl/certs "$root/etc/ssl/"
    printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d"
    chmod +x "$root/usr/sbin/policy-rc.d"
    tar -C "$root" -cf "$dir/bare.tar" .
fi
rm -rf "$root"
mkdir -p "$root"
tar -C "$root" -xf "$dir/bare.tar"
mkdir "$root/new" "$root/before"
cp "$dir"/*.deb "$root/new/"
rm -f "$root"/new/*dbgsym*
cp debian/tests/installed "$root/new/"
cp -L /etc/resolv.conf /etc/hosts "$root/etc/"
for package in "$root"/new/*.deb; do
    dpkg-deb --raw-extract "$package" "$dir/before"
    sed -i -E '/^(Version|Depends)/s/1\.0\.0/0.9.0/g' "$dir/before/DEBIAN/control"
    dpkg-deb --root-owner-group --build "$dir/before" "$root/before/$(basename "$package")" >/dev/null
    rm -rf "$dir/before"
done
cp packaging/outside/packages "$root/new/"
# The machine and all that runs on it are gone when its first process ends.
unshare --mount --pid --fork --kill-child --mount-proc="$root/proc" \
    chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root DEBIAN_FRONTEND=noninteractive \
    http_proxy="${http_proxy:-}" https_proxy="${https_proxy:-}" /bin/sh /new/packages >"$dir/machine.log" 2>&1 ||
    { tail -30 "$dir/machine.log" >&2; exit 1; }
grep '^packages: ' "$dir/machine.log"
rm -rf "$root"
