#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test: the host suites through CTest, then the
# device checks (Android.bp, SELinux policy, arm64 unit tests under qemu-user).
#   scripts/test.sh [--host-only]
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"
ctest --test-dir build --output-on-failure -j"$(nproc)"
[ "${1:-}" = "--host-only" ] || scripts/check-device.sh
