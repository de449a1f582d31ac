#!/usr/bin/env bash
# The daemon's main job, shown on this machine: stand-ins for system_server (whose watchdog thread
# wedges in uninterruptible sleep after a few seconds) and surfaceflinger, and stall_ward with its
# default configuration plus enable=true and policy=kill. Its log is shown as it happens: the
# sweeps, the evidence at the first expiry (SysRq w and l), and the kill one timeout later. It
# ends with stall_ward_check's report on the same configuration and stall_ward_report's account
# of the run (and its page, build/demo-report.html).
#
#   scripts/demo.sh              time runs 20 times faster for the daemon (about 20 s in all)
#   scripts/demo.sh --real-time  the daemon's own pace (about 5 minutes)
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh" >/dev/null

speed=20
[ "${1:-}" = "--real-time" ] && speed=1
limit=$((speed == 1 ? 420 : 60))
work=$(mktemp -d /tmp/stall_ward_demo.XXXXXX)
pids=()
cleanup() {
  [ ${#pids[@]} -gt 0 ] && kill -9 "${pids[@]}" 2>/dev/null
  wait 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

(exec -a /system/bin/system_server build/stand_in --thread watchdog:W \
  --thread android.bg:S >/dev/null) &
system_server=$!
(exec -a /system/bin/surfaceflinger build/stand_in >/dev/null) &
surfaceflinger=$!
pids+=("$system_server" "$surfaceflinger")

# SysRq commands go to a FIFO of the demo's own, never to the kernel. Holding it open for reading
# and writing keeps the daemon's opens from blocking; each command arrives with its NUL.
mkfifo "$work/sysrq-trigger"
exec 3<>"$work/sysrq-trigger"

printf 'persist.vendor.sw.enable=true\npersist.vendor.sw.policy=kill\n' >"$work/props"
chmod 644 "$work/props"  # the daemon refuses a property file others could change
echo "stand-ins: system_server pid $system_server (watchdog wedges in D after ~3 s)," \
  "surfaceflinger pid $surfaceflinger"
if [ "$speed" -gt 1 ]; then
  echo "time runs ${speed}x faster for the daemon (libfaketime): a 30 s sweep takes 1.5 s;" \
    "use --real-time for the real pace"
fi
echo "timeout 120 s: evidence after 120-150 s of stall, the kill 120 s later (daemon time)"
echo

preload=()
if [ "$speed" -gt 1 ]; then
  # the host's own library: arm64 packages may be installed beside it
  preload=(LD_PRELOAD="/usr/lib/$(gcc -print-multiarch)/faketime/libfaketime.so.1"
           FAKETIME="+0 x$speed")
fi
env "${preload[@]}" STALL_WARD_PROPERTIES="$work/props" \
  STALL_WARD_SYSRQ_TRIGGER="$work/sysrq-trigger" build/stall_ward 2>"$work/log" &
pids+=($!)
# The screen leaves out the per-record lookup lines; the whole log is kept in build/demo.log.
shown=0
killed=0
for ((i = 0; i < limit * 10; i++)); do
  while IFS= read -r -d '' -t 0.05 -u 3 command; do
    echo "                   [sysrq-trigger] $command"
  done
  total=$(wc -l <"$work/log")
  if [ "$total" -gt "$shown" ]; then
    sed -n "$((shown + 1)),${total}p" "$work/log" |
      grep -v -E 'find record for|not in monitor list|\[sh\]' || true
    shown=$total
  fi
  [ "$killed" -eq 1 ] && break
  grep -q 'killing proc' "$work/log" && killed=1
  sleep 0.1
done
cp "$work/log" build/demo.log
echo
echo "== stall_ward_check on the demo's configuration"
STALL_WARD_PROPERTIES="$work/props" build/stall_ward_check || true
echo
echo "== stall_ward_report on the demo's log (the page: build/demo-report.html)"
build/stall_ward_report --html build/demo-report.html build/demo.log
echo
if [ "$killed" -eq 1 ] && ! kill -0 "$system_server" 2>/dev/null; then
  echo "system_server stand-in (pid $system_server) was killed by stall_ward;" \
    "surfaceflinger, whose main thread only sleeps, was left alone. Full log: build/demo.log"
else
  echo "no kill within ${limit} s; full log: build/demo.log"
  exit 1
fi
