#!/usr/bin/env bash
# The mutation check: applies each one-line fault of scripts/mutants.list to a copy of the tree,
# rebuilds, and runs the in-process tests, then the end-to-end ones only for a fault those let
# through. Every fault must be caught ("killed"); one whose text is no longer found exactly once
# is reported stale, and one that does not build proves nothing and is reported broken. Ends with
# "N killed, M survived" and fails on any survivor, stale or broken entry.
#   scripts/mutants.sh [list]
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh" >/dev/null
list=$(realpath "${1:-scripts/mutants.list}")
work=$(mktemp -d /tmp/stall_ward_mutants.XXXXXX)
trap 'rm -rf "$work"' EXIT
git ls-files -z | xargs -0 cp --parents -t "$work"
# Through a compiler cache of the run's own, so that putting a file back after its fault costs no
# compilation (a fault in a header rebuilds every test source twice otherwise).
export CCACHE_DIR="$work/ccache"
cmake -S "$work" -B "$work/build" -DBUILD_TESTING=ON -DCMAKE_CXX_COMPILER_LAUNCHER=ccache >/dev/null
# Only what the two stages run is built: the unit tests, and the end-to-end cases with the daemon.
cmake --build "$work/build" --target unit_tests scenario_tests -j"$(nproc)" >/dev/null

# apply FILE TEXT REPLACEMENT: replaces the one occurrence (\n stands for a line end); prints how
# many occurrences there were.
apply() {
  FROM=$2 TO=$3 perl -0777 -i -e '
    my ($from, $to) = map { s/\\n/\n/gr } ($ENV{FROM}, $ENV{TO});
    local $_ = <>; my $n = () = /\Q$from\E/g;
    s/\Q$from\E/$to/ if $n == 1; print; print STDERR $n;' "$1" 2>&1 >/dev/null
}
in_process() {  # the unit tests in one process, cheap ones first, stopping at the first failure
  "$work/build/tests/unit_tests" --gtest_fail_fast >/dev/null 2>&1
}
end_to_end() {
  ctest --test-dir "$work/build" -L end-to-end -j"$(nproc)" >/dev/null 2>&1
}

killed=0 survived=0 stale=0 broken=0 survivors=()
start=$SECONDS
while IFS=$'\t' read -r -u 3 file text replacement bug; do
  [[ -z "$file" || "$file" == \#* ]] && continue
  n=$(apply "$work/$file" "$text" "$replacement")
  if [ "$n" != 1 ]; then
    echo "STALE ($n found): $file: $text"; stale=$((stale + 1)); continue
  fi
  # Only what the next stage runs is rebuilt: the unit tests, then the daemon for the end-to-end
  # cases (their own binary does not link the daemon's code).
  if ! cmake --build "$work/build" --target unit_tests -j"$(nproc)" >/dev/null 2>&1; then
    echo "BROKEN (does not build): $file: $bug"; broken=$((broken + 1))
    cp "$file" "$work/$file"; continue
  fi
  if ! in_process; then
    how="in-process"
  elif ! cmake --build "$work/build" --target stall_ward -j"$(nproc)" >/dev/null 2>&1 || ! end_to_end; then
    how="end to end"
  else
    how=""
  fi
  cp "$file" "$work/$file"
  if [ -n "$how" ]; then
    killed=$((killed + 1)); echo "killed $how: $bug"
  else
    survived=$((survived + 1)); survivors+=("$file: $bug"); echo "SURVIVED: $file: $bug"
  fi
done 3<"$list"
echo "$(( (SECONDS - start) / 60 )) min; stale: $stale; broken: $broken"
for s in "${survivors[@]}"; do echo "survivor: $s"; done
echo "$killed killed, $survived survived"
[ "$survived" -eq 0 ] && [ "$stale" -eq 0 ] && [ "$broken" -eq 0 ]
