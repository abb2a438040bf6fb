#!/bin/sh
# install_test.sh BUILD_DIR SOURCE_DIR [CFLAGS...]: installs the build as a packager does
# (DESTDIR, prefix /usr), checks the staged systemd units with systemd-analyze verify, and
# builds and runs the C11 program tests/c_api/c_api.c against the staged tree through
# pkg-config, linked shared and static. Needs root for its mount namespace (77 otherwise).
set -eu
build=$1 src=$2
shift 2
[ "$(id -u)" -eq 0 ] && unshare --mount true 2>/dev/null || { echo "skipped: needs root"; exit 77; }
stage=$(mktemp -d /tmp/ardvex-install.XXXXXX)
trap 'rm -rf "$stage"' EXIT
DESTDIR=$stage cmake --install "$build" --prefix /usr >/dev/null

units=$stage/usr/lib/systemd/system
grep -qx 'ExecStart=/usr/sbin/ardvex-metrics-client' "$units/ardvex-metrics-client.service"
# The program as the unit names it, seen through an overlay that only this namespace has.
unshare --mount --propagation private sh -c '
    mount -t overlay staged -o "lowerdir=$1/usr/sbin:/usr/sbin" /usr/sbin &&
    systemd-analyze verify --man=no "$2/ardvex-metrics-client.service" \
        "$2/ardvex-metrics-client.timer" "$2/ardvex-policyd.socket" \
        "$2/ardvex-policyd.service"' verify "$stage" "$units"
grep -qx 'ExecStart=/usr/sbin/ardvex-policyd' "$units/ardvex-policyd.service"
test -f "$stage/usr/share/man/man8/ardvex-policyd.8" && test -f "$stage/usr/share/man/man8/ardvex-admin.8"

pc=$(find "$stage" -name ardvex.pc)
grep -qx 'prefix=/usr' "$pc"
export PKG_CONFIG_SYSROOT_DIR="$stage" PKG_CONFIG_LIBDIR="${pc%/*}"
libdir=$(pkg-config --variable=libdir ardvex)
# shellcheck disable=SC2046 # pkg-config's words are meant to split
cc -std=c11 -pedantic -Wall -Werror "$@" $(pkg-config --cflags ardvex) "$src/tests/c_api/c_api.c" \
    $(pkg-config --libs ardvex) -o "$stage/c_api_shared"
LD_LIBRARY_PATH=$libdir "$stage/c_api_shared"
# shellcheck disable=SC2046
cc -std=c11 -pedantic -Wall -Werror "$@" $(pkg-config --cflags ardvex) "$src/tests/c_api/c_api.c" \
    -Wl,-Bstatic $(pkg-config --static --libs ardvex | sed 's/ -lardvex / -lardvex -Wl,-Bdynamic /') \
    -o "$stage/c_api_static"
! LD_LIBRARY_PATH=$libdir ldd "$stage/c_api_static" | grep -q libardvex
"$stage/c_api_static"
# The shipped library offers no way to make it fail: the testing seams are not in it.
! nm -D --defined-only "$libdir/libardvex.so" | grep -q testing
