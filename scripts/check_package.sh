#!/usr/bin/env bash
# check_package.sh <build directory>: installs the packages that package.sh made in a fresh Debian
# tree of their machine, runs the demonstration from there, and removes them again. Wants to be root.
# The tree comes from debootstrap the first time and is kept in the build directory.
set -euo pipefail

# What is mounted here goes with this process: nobody else sees it, and nothing stays behind.
if [ -z "${NRPC_OWN_MOUNTS:-}" ]; then
    NRPC_OWN_MOUNTS=1 exec unshare --mount --propagation private "$0" "$@"
fi
cd "$1"
deb=(package/*.deb)
tarball=(package/*.tar.gz)
fresh=$PWD/debian-i386.tar

tree=$(mktemp -d)
trap 'umount -q "$tree/proc" || true; rm -rf --one-file-system "$tree"' EXIT

inside() {
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin chroot "$tree" "$@"
}

if [ ! -e "$fresh" ]; then
    printf '      fetch a Debian tree, once\n'
    # shellcheck disable=SC2016 # apt-get puts in what is asked for
    mirror=$(apt-get indextargets --format '$(SITE)' 'Created-By: Packages' 'Codename: bookworm' | head -n 1)
    debootstrap --variant=minbase --arch=i386 bookworm "$tree" ${mirror:+"$mirror"} >debootstrap.log 2>&1 ||
        { tail -n 20 debootstrap.log; exit 1; }
    rm -rf "$tree"/var/cache/apt/archives/*.deb "$tree"/var/lib/apt/lists/*
    tar -C "$tree" --one-file-system -cf "$fresh.part" .
    mv "$fresh.part" "$fresh"
else
    tar -C "$tree" -xf "$fresh"
fi
mount -t proc proc "$tree/proc"

cp "${deb[0]}" "$tree/nrpc.deb"
inside dpkg -i /nrpc.deb >install.log 2>&1 || { cat install.log; exit 1; }
inside nrpc-host demo >install.log 2>&1 || { cat install.log; exit 1; }
[ "$(inside sh -c 'ldconfig -p | grep -c libnrpc.so')" -eq 1 ]
gzip -cd "$tree/usr/share/man/man1/nrpc-host.1.gz" | grep -q '^\.SH EXAMPLES'
inside dpkg --purge nrpc >/dev/null
[ -z "$(find "$tree/usr" -name '*nrpc*')" ]
printf 'ok    %s: installs in a fresh Debian, its demonstration passes, nothing stays\n' "$1/${deb[0]}"

tar -C "$tree/opt" -xf "${tarball[0]}"
inside sh -c '/opt/nrpc-*/bin/nrpc-host demo' >install.log 2>&1 || { cat install.log; exit 1; }
printf 'ok    %s: unpacked, its demonstration passes\n' "$1/${tarball[0]}"
