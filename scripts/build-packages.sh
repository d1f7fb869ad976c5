#!/usr/bin/env bash
# Builds the Debian packages vantrel-watchdog, libvantrel1 and libvantrel-dev
# from a tree configured for /usr (build-packages/) into the given directory.
#   scripts/build-packages.sh [output dir, default packages/]
set -euo pipefail
cd "$(dirname "$0")/.."
out=$(mkdir -p "${1:-packages}" && cd "${1:-packages}" && pwd)
build=build-packages
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr >/dev/null
targets=(VantrelWatchdog vantrel vantrel_shared)
cmake --build "$build" --target help | grep -qw vantrelctl && targets+=(vantrelctl)
cmake --build "$build" -j"$(nproc)" --target "${targets[@]}"
cpack --config "$build/CPackConfig.cmake" -G DEB -B "$out/.cpack"
mv "$out"/.cpack/*.deb "$out"/
rm -rf "$out/.cpack"
ls -1 "$out"/*.deb
