#!/usr/bin/env bash
# Checks, without the Android tree, what a device build relies on: Android.bp is formatted, the
# vendor SELinux policy compiles against Android 11's platform policy and grants exactly what the
# daemon needs (skipped, with a line that says so, when no platform policy is at hand: see
# scripts/check-sepolicy.sh), and the daemon and its unit tests built for arm64 pass under qemu-user.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh" >/dev/null

# The arm64 builds of the Android libraries come from Debian's multiarch archive.
dpkg --print-foreign-architectures | grep -qx arm64 || as_root dpkg --add-architecture arm64
install_missing blueprint-tools m4 checkpolicy setools g++-aarch64-linux-gnu qemu-user-static \
  android-liblog-dev:arm64 android-libbase-dev:arm64 android-libcutils-dev:arm64 libgtest-dev:arm64

echo "== Android.bp is bpfmt-clean"
diff=$(bpfmt -d Android.bp)
[ -z "$diff" ] || { echo "$diff"; echo "FAIL: bpfmt -d shows a difference"; exit 1; }
echo ok

echo "== SELinux policy against the platform's"
scripts/check-sepolicy.sh

echo "== arm64: the unit tests under qemu-user"
cmake -S . -B build-arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake \
  -DSTAND_IN_PROGRAM="$PWD/build/stand_in" >/dev/null
cmake --build build-arm64 -j"$(nproc)" --target unit_tests stall_ward
readelf -h build-arm64/stall_ward | grep -q AArch64 || { echo "FAIL: not an arm64 build"; exit 1; }
ctest --test-dir build-arm64 --output-on-failure -j"$(nproc)"
