#!/usr/bin/env bash
# Builds the three Debian packages from a built tree, unpacks each into a
# scratch root and uses them there: file lists and dependencies, the unpacked
# supervisor on a tiny configuration, and a C program built through
# pkg-config against the unpacked -dev package, linked shared and static.
#   debian_packages.sh <build dir> <install prefix> <libdir> <full sysconfdir>
set -euo pipefail
build=$1 prefix=$2 libdir=$3 sysconfdir=$4
scratch=$(mktemp -d /tmp/vantrel-pkg.XXXXXX)
pid=""
cleanup() { [ -n "$pid" ] && kill -9 "$pid" 2>/dev/null; rm -rf "$scratch"; }
trap cleanup EXIT
fail() { echo "debian_packages: $*" >&2; exit 1; }

cpack --config "$build/CPackConfig.cmake" -G DEB -B "$scratch/debs" >"$scratch/cpack.log" 2>&1 ||
  { cat "$scratch/cpack.log"; fail "cpack failed"; }
root=$scratch/root
for package in vantrel-watchdog libvantrel1 libvantrel-dev; do
  deb=$(ls "$scratch"/debs/${package}_*.deb) || fail "no package $package"
  dpkg-deb -x "$deb" "$root"
  dpkg-deb -c "$deb" | awk '{print $6}' | sed 's|^\./|/|' >"$scratch/$package.files"
  dpkg-deb -f "$deb" Depends >"$scratch/$package.depends"
done

expect() {  # package, then paths (regexes) that must be in its file list
  local package=$1; shift
  for path in "$@"; do grep -Eqx "$path" "$scratch/$package.files" || fail "$package lacks $path"; done
}
expect vantrel-watchdog "$prefix/bin/VantrelWatchdog" "$prefix/share/man/man8/VantrelWatchdog.8" \
  "$prefix/lib/systemd/system/vantrel-watchdog(@)?.service" "$sysconfdir/vantrel/watchdog.conf"
expect libvantrel1 "$prefix/$libdir/libvantrel.so.1(.[0-9.]+)?"
expect libvantrel-dev "$prefix/include/vantrel/vantrel.h" "$prefix/$libdir/libvantrel.(a|so)" \
  "$prefix/$libdir/pkgconfig/vantrel.pc" "$prefix/$libdir/cmake/Vantrel/VantrelConfig(Version)?.cmake"
! grep -q 'libvantrel.so$\|include/' "$scratch/libvantrel1.files" || fail "libvantrel1 holds development files"
grep -q 'libxmlrpc-core-c3' "$scratch/libvantrel1.depends" || fail "libvantrel1 does not depend on xmlrpc-c"
grep -q 'libvantrel1 (= ' "$scratch/libvantrel-dev.depends" || fail "libvantrel-dev does not depend on libvantrel1"

# The units pass systemd's checks once their command is where they expect it.
if command -v systemd-analyze >/dev/null; then
  for unit in vantrel-watchdog.service vantrel-watchdog@.service; do
    sed "s|$prefix/bin/VantrelWatchdog|$root&|" "$root$prefix/lib/systemd/system/$unit" >"$scratch/${unit/@/@main}"
  done
  MANPATH=$root$prefix/share/man systemd-analyze verify "$scratch"/vantrel-watchdog*.service ||
    fail "systemd-analyze verify failed"
fi

# The unpacked supervisor serves its control port until SIGTERM ends it.
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
printf -- '--port=%s\n--log-file-name=%s/wd.log\n' "$port" "$scratch" >"$scratch/wd.conf"
(cd "$scratch" && exec "$root$prefix/bin/VantrelWatchdog" "$scratch/wd.conf" >/dev/null 2>&1) &
pid=$!
for _ in $(seq 200); do (: </dev/tcp/127.0.0.1/"$port") 2>/dev/null && break; sleep 0.1; done
python3 -c 'import sys, xmlrpc.client; sys.exit("list" not in xmlrpc.client.ServerProxy(sys.argv[1]).VantrelWatchdog.GetStatus())' \
  "http://127.0.0.1:$port/RPC2" || fail "the unpacked supervisor did not answer"
kill -TERM "$pid"
wait "$pid" || fail "the unpacked supervisor ended with status $?"
pid=""

# A C program against the unpacked -dev package, through pkg-config.
cat >"$scratch/prog.c" <<'C'
#include <stdlib.h>
#include <string.h>
#include <vantrel/vantrel.h>
int main(void)
{
    char** list = vantrel_str_list_new();
    char* name = malloc(sizeof "clip.mxf");
    int count = vantrel_str_list_append(&list, strcpy(name, "clip.mxf"));
    vantrel_str_list_free(&list);
    return count == 1 && vantrel_audio_layouts_count() == 8 ? 0 : 1;
}
C
export PKG_CONFIG_PATH=$root$prefix/$libdir/pkgconfig
pc() { pkg-config --define-variable=prefix="$root$prefix" "$@" vantrel; }
cc -std=c99 -Wall -Werror "$scratch/prog.c" $(pc --cflags --libs) -Wl,-rpath,"$root$prefix/$libdir" \
  -o "$scratch/prog_shared" || fail "shared link failed"
cc -std=c99 -Wall -Werror "$scratch/prog.c" $(pc --cflags --libs --static | sed 's/-lvantrel\b/-l:libvantrel.a/') \
  -o "$scratch/prog_static" || fail "static link failed"
for kind in shared static; do "$scratch/prog_$kind" || fail "the $kind program failed"; done
readelf -d "$scratch/prog_shared" | grep -q 'libvantrel.so.1' || fail "not linked with libvantrel.so.1"
! readelf -d "$scratch/prog_static" | grep -q 'libvantrel' || fail "static program needs libvantrel"
echo "debian_packages: ok"
