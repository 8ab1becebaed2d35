#!/usr/bin/env bash
# package.sh <build directory>: makes the packages of a finished build, in its directory package, and
# looks them through. check_package.sh then tries them.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
readonly root=$PWD
cd "$1"

fault() {
    printf 'FAULT %s\n' "$*" >&2
    exit 1
}

# The packages that program and library need, from the symbols that they use. The machine that builds
# has the 32-bit libraries from packages of its own, made of the same sources under other names.
depends() {
    local place
    place=$(mktemp -d)
    mkdir "$place/debian"
    printf 'Source: nrpc\n\nPackage: nrpc\nArchitecture: any\n' >"$place/debian/control"
    (cd "$place" && dpkg-shlibdeps -O "$OLDPWD/nrpc-host" "$OLDPWD/libnrpc.so" 2>"$place/log") |
        sed -e 's/^shlibs:Depends=//' -e 's/libc6-i386/libc6/' -e 's/lib32\([a-z]\)/lib\1/g'
    rm -r "$place"
}

# Every subcommand and option that the program names stands in its manual page.
check_manual() {
    local manual command word
    manual=$(sed 's/\\-/-/g' "$root/docs/nrpc-host.1")
    for command in "" $(./nrpc-host --help | sed -n '/^Subcommands:/,$ s/^  \([a-z]\+\) .*/\1/p'); do
        # shellcheck disable=SC2086 # no argument where there is no subcommand
        for word in $command $(./nrpc-host $command --help | grep -oE -- '--[a-z]+(-[a-z]+)*'); do
            grep -qE -- "(^|[^a-z-])$word([^a-z-]|$)" <<<"$manual" ||
                fault "docs/nrpc-host.1 does not tell of $command $word"
        done
    done
}

# The time of the packages is that of the last change, so that making them again makes the same.
if [ -z "${SOURCE_DATE_EPOCH:-}" ] && SOURCE_DATE_EPOCH=$(git -C "$root" log -1 --format=%ct 2>/dev/null); then
    export SOURCE_DATE_EPOCH
fi
rm -rf package
cmake . >/dev/null
needed=$(depends)
[ -n "$needed" ] || fault "no packages found that the library needs"
check_manual
cpack -D CPACK_DEBIAN_PACKAGE_DEPENDS="$needed" >package.log || { cat package.log; exit 1; }
rm -r package/_CPack_Packages

deb=(package/*.deb)
tarball=(package/*.tar.gz)
version=$(dpkg-deb -f "${deb[0]}" Version)
[[ $(./nrpc-host describe) == *"$version"* ]] || fault "the descriptor does not say version $version"
[ "$(./nrpc-host --version)" = "nrpc-host $version" ] || fault "nrpc-host does not say version $version"
lintian --allow-root --fail-on error,warning "${deb[0]}"
printf 'ok    %s\n' "$1/${deb[0]}" "$1/${tarball[0]}" "needs $needed" "the manual page tells of every option" \
    "lintian finds nothing" "descriptor and program say version $version"
