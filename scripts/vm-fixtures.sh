#!/usr/bin/env bash
# Remakes the real kernel logs among the report tool's fixtures (tests/report/kernel/vm-arm64-*):
# boots the VM scenarios that produce them (scripts/test-vm.sh blocked panic reboot app binder
# binder-d binder-cycle) and cuts each out of the serial logs, verbatim: the kernel's dumps; from
# `app`, the daemon's log with the Java dump and the tombstone the stand-in wrote when SIGQUIT and
# signal 35 arrived; and the bug reports the binder scenarios write (tests/report/bugreport/vm-arm64-*).
# Never edit those files by hand; rerun this.
#   scripts/vm-fixtures.sh          boot, then cut
#   scripts/vm-fixtures.sh --cut    cut from the serial logs of the last run (build/vm/*.log)
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
[ "${1:-}" = --cut ] || scripts/test-vm.sh blocked panic reboot app binder binder-d binder-cycle
vm=build/vm
out=tests/report/kernel
release=$(grep -m1 -o 'Linux version [0-9]*\.[0-9]*' $vm/blocked.log | awk '{print $3}')
name=$out/vm-arm64-$release

# section LOG FROM TO: the lines between the marker lines FROM and TO, both left out.
section() { awk -v from="$2" -v to="$3" '$0 == to {on = 0} on {print} $0 == from {on = 1}' "$1"; }
# dump START: from the first line holding START, the lines of that kernel dump (task and CPU
# headers, call traces and their frames) up to the first line that is none of them.
dump() {
  awk -v start="$1" '
    !on && index($0, start) {on = 1; print; next}
    on && /\] (sysrq: CPU|Call trace:|task:| +Not tainted|"echo 0 >| +[?]? *[A-Za-z0-9_.]+\+0x)/ {
      print
      next
    }
    on {exit}'
}

dmesg=$(section $vm/blocked.log "@@ dmesg" "@@ dmesg end")
dump "sysrq: Show Blocked State" <<<"$dmesg" >$name-sysrq-w.txt
dump "sysrq: Show backtrace of all active CPUs" <<<"$dmesg" >$name-sysrq-l.txt
dump "INFO: task touch:" <<<"$dmesg" >$name-hung-task.txt
section $vm/blocked.log "@@ daemon log" "@@ dmesg" >$name-stall_ward.log
# The panic as the console showed it, and its record as the next boot read it from pstore.
awk 'index($0, "sysrq: Trigger a crash") {on = 1} on {print} on && index($0, "Rebooting in") {exit}
' $vm/panic.log >$name-panic.txt
section $vm/panic.log "@@ pstore dmesg-ramoops-0" "@@ pstore end" >$name-pstore-panic.txt
section $vm/reboot.log "@@ pstore dmesg-ramoops-0" "@@ pstore end" >$name-pstore-restart.txt
section $vm/app.log "@@ daemon log" "@@ dmesg" >$name-app-stall_ward.log
for dump in trace_00 tombstone_00; do
  section $vm/app.log "@@ dump $dump" "@@ dump end" >$name-app.$dump
done
mkdir -p tests/report/bugreport
for s in binder binder-d binder-cycle; do
  section $vm/$s.log "@@ bugreport" "@@ bugreport end" >tests/report/bugreport/vm-arm64-$release-$s.txt
done
for f in $name-* tests/report/bugreport/vm-arm64-$release-*; do
  [ -s "$f" ] || { echo "FAIL: $f is empty"; exit 1; }
done
wc -l $name-* tests/report/bugreport/vm-arm64-$release-*
