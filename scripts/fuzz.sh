#!/usr/bin/env bash
# Builds the libFuzzer targets in fuzz/ with clang (ASan and UBSan) and runs each for a bounded
# time from its seed corpus; any crash or failed check fails the run and leaves the input in
# build-fuzz/artifacts/.
#   scripts/fuzz.sh [seconds per target, default 60]
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh" >/dev/null
install_missing clang libclang-rt-14-dev
seconds=${1:-60}
CXX=clang++ cmake -S fuzz -B build-fuzz >/dev/null
cmake --build build-fuzz -j"$(nproc)"
mkdir -p build-fuzz/artifacts
failed=0
for corpus in fuzz/corpus/*/; do
  name=$(basename "$corpus")
  work=$(mktemp -d)  # new inputs go here; the seeds in the repository stay as they are
  if build-fuzz/"${name}_fuzzer" -max_total_time="$seconds" -print_final_stats=0 \
      -artifact_prefix=build-fuzz/artifacts/"$name"- "$work" "$corpus" >build-fuzz/"$name".log 2>&1; then
    echo "ok: $name ($(grep -o 'Done [0-9]* runs' build-fuzz/"$name".log))"
  else
    echo "FAIL: $name"; tail -n 30 build-fuzz/"$name".log; failed=1
  fi
  rm -rf "$work"
done
exit "$failed"
