#!/usr/bin/env bash
# Installs what the build and the tests need on a Debian 12 machine, only when missing.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libxmlrpc-core-c3-dev libcurl4-openssl-dev libxml2-dev libnuma-dev
  libsystemd-dev dpkg-dev
  libgtest-dev googletest
  libcli11-dev nlohmann-json3-dev
  python3
  clang libclang-rt-14-dev
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
