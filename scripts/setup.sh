#!/usr/bin/env bash
# Installs what building and testing stall_ward on a host needs (Debian 12), when it is missing,
# then configures and builds into build/. Sourced by the other scripts.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

as_root() { if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi; }

# install_missing PACKAGE...: apt-get install of those not installed yet. (dpkg-query, not dpkg -s:
# once a package is installed for arm64 too, dpkg -s refuses its plain name as ambiguous.)
install_missing() {
  local missing=()
  for p in "$@"; do
    [[ "$(dpkg-query -W -f='${db:Status-Abbrev}' "$p" 2>/dev/null)" == ii* ]] || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "installing: ${missing[*]}"
  # Another install running beside this one (two scripts at once) is waited for, not failed on.
  as_root apt-get -o DPkg::Lock::Timeout=600 update -q
  as_root env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=600 install -y -q \
    --no-install-recommends "${missing[@]}"
}

install_missing cmake g++ make libgtest-dev android-liblog-dev android-libbase-dev \
  android-libcutils-dev faketime procps util-linux toybox libzip-dev nlohmann-json3-dev \
  libjsoncpp-dev chromium python3 sqlite3 ccache
cmake -S . -B build -DBUILD_TESTING=ON >/dev/null
cmake --build build -j"$(nproc)"
