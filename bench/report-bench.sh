#!/usr/bin/env bash
# The report tool's speed beside its floors, on the same files, in one line of ratios (README gives
# the figures): 200 MB of other programs' lines with the daemon's log at the end against
# `grep -c -F stall_ward`; a 64 MB bug report zip against `unzip -p FILE | wc -l`; --summary over
# 1,000 bug reports (1 MB each) on two processors against one; the peak memory of a small and a large input,
# of few and many inputs. BASELINE=path/to/an/older/stall_ward_report adds how many times faster
# than it the text is read. Each time is the best of five runs.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/../scripts/setup.sh" >/dev/null
install_missing unzip python3 time
tool=$PWD/build/stall_ward_report
work=build/bench/report
mkdir -p "$work"
log=tests/report/logs/RebootEndsTheInitOfThePidNamespace.log
line='11-22 08:07:00.000  1234  1301 I ActivityManager: Start proc 4321'
[ -s "$work/200M.log" ] || { yes "$line" | head -c 200M || true; cat "$log"; } >"$work/200M.log"
[ -s "$work/2M.log" ] || { yes "$line" | head -c 2M || true; cat "$log"; } >"$work/2M.log"
[ -s "$work/big/bugreport-0000.zip" ] || scripts/make-fleet.py "$work/big" 1 65536
[ -d "$work/fleet1000" ] || scripts/make-fleet.py "$work/fleet1000" 1000 1024
rm -f "$work/fleet1000/bugreport-damaged.zip"
[ -d "$work/fleet10" ] || scripts/make-fleet.py "$work/fleet10" 10
rm -f "$work/fleet10/bugreport-damaged.zip"

# best SECONDS of five runs of a command (its output thrown away), timed to the microsecond: grep
# reads the 200 MB in a few hundredths of a second
best() {
  local b=999 t s
  for _ in 1 2 3 4 5; do
    s=$(date +%s.%N)
    bash -c "$1" >/dev/null 2>&1 || true
    t=$(awk -v s="$s" -v e="$(date +%s.%N)" 'BEGIN {printf "%.3f", e - s}')
    b=$(echo "$t $b" | awk '{print ($1 < $2) ? $1 : $2}')
  done
  echo "$b"
}
peak() { /usr/bin/time -f %M "$@" 2>&1 >/dev/null | tail -1; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN {printf "%.1f", a / (b > 0.005 ? b : 0.005)}'; }

zip=$work/big/bugreport-0000.zip
text=$(best "$tool $work/200M.log")
grep=$(best "grep -c -F stall_ward $work/200M.log")
zipped=$(best "$tool $zip")
unzipped=$(best "unzip -p $zip | wc -l")
one=$(best "$tool --summary --jobs 1 $work/fleet1000")
two=$(best "$tool --summary --jobs 2 $work/fleet1000")
before=""
if [ -n "${BASELINE:-}" ]; then
  old=$(best "$BASELINE $work/200M.log")
  before="; $(ratio "$old" "$text")x faster than before ($old s)"
fi
echo "text 200 MB: $text s = $(ratio "$text" "$grep")x grep -c -F ($grep s)$before;" \
  "zip $(($(unzip -l "$zip" | tail -1 | awk '{print $1}') / 1000000)) MB: $zipped s =" \
  "$(ratio "$zipped" "$unzipped")x unzip -p | wc -l ($unzipped s);" \
  "--summary 1000 bug reports: $two s on 2 jobs, $one s on 1 = $(ratio "$one" "$two")x;" \
  "peak KiB: $(peak "$tool" "$work/2M.log") (2 MB), $(peak "$tool" "$work/200M.log") (200 MB)," \
  "$(peak "$tool" --summary "$work/fleet10") (10 reports)," \
  "$(peak "$tool" --summary "$work/fleet1000") (1000 reports);" \
  "load $(cut -d' ' -f1 /proc/loadavg) on $(nproc) cores"
