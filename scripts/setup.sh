#!/usr/bin/env bash
# Installs what building and testing stall_ward needs on Debian 12, when it is missing, and
# configures and builds into build/. Sourced by the other scripts.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

packages=(cmake g++ make libgtest-dev android-liblog-dev android-libbase-dev android-libcutils-dev
          faketime procps util-linux)
missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  echo "installing: ${missing[*]}"
  $sudo apt-get update -q
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q "${missing[@]}"
fi

cmake -S . -B build -DBUILD_TESTING=ON >/dev/null
cmake --build build -j"$(nproc)"
