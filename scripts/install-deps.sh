#!/usr/bin/env bash
# Install the Debian packages the build and the tests need, when they are missing.
# Safe to run again: it does nothing when everything is there.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config binutils
  liblmdb-dev lmdb-utils
  libzmq3-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev
  doxygen dpkg-dev file lintian
  libsystemd-dev libxxhash-dev nlohmann-json3-dev libcli11-dev
  iproute2
  keepalived resource-agents libxml2-utils
  libfmt-dev libmicrohttpd-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
if [ "$(id -u)" -ne 0 ]; then
  SUDO=sudo
else
  SUDO=
fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
