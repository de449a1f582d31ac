#!/usr/bin/env bash
# Installs what is missing, builds, and runs the tests: the host suites through CTest, then the
# device checks (Android.bp, SELinux policy, arm64 unit tests under qemu-user), then the VM suite
# (every action for real on Debian's arm64 kernel under qemu-system-aarch64).
#   scripts/test.sh              the host suites, the device checks and the VM suite
#   scripts/test.sh --host-only  the host suites alone
#   scripts/test.sh --full       everything: also the soak (1,000 sweeps under churn), every
#                                suite again built with ASan and UBSan, every fuzzer for 30 s,
#                                and the mutation check
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"
mode=${1:-}
ctest --test-dir build --output-on-failure -j"$(nproc)"
[ "$mode" = --host-only ] && exit 0
scripts/check-device.sh
echo "== the VM suite: the daemon on a real arm64 kernel"
scripts/test-vm.sh
[ "$mode" = --full ] || exit 0

echo "== the soak: 1,000 sweeps of the real daemon under churn"
STALL_WARD_SOAK=1 build/tests/scenario_tests --gtest_filter='Soak.*'

echo "== every suite again, with AddressSanitizer, UndefinedBehaviorSanitizer and LeakSanitizer"
cmake -S . -B build-asan -DBUILD_TESTING=ON -DSTALL_WARD_SANITIZE=ON >/dev/null
cmake --build build-asan -j"$(nproc)"
# libfaketime comes before the sanitizer runtime in the scenarios' daemons.
ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --test-dir build-asan --output-on-failure -j"$(nproc)"

echo "== the fuzzers"
scripts/fuzz.sh 30

echo "== the mutation check: every listed one-line fault must be caught"
scripts/mutants.sh
