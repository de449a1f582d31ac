#!/usr/bin/env bash
# Every action of the daemon for real, on a real arm64 kernel: builds the daemon, the stand-in and
# the unit tests (stall_ward_tests) for arm64, packs them with the arm64 libraries they need, toybox
# as the device's ps and busybox for the rest into an initramfs, and boots Debian's arm64 kernel
# with it under qemu-system-aarch64, once per scenario (scripts/vm/init runs it). Nothing is
# redirected there: the daemon writes the real /proc/sysrq-trigger, really reboots and really
# panics the machine. Each scenario is judged from its serial log, kept as build/vm/NAME.log.
#   scripts/test-vm.sh [NAME...]   all scenarios, or those named
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh" >/dev/null
start=$SECONDS

dpkg --print-foreign-architectures | grep -qx arm64 || as_root dpkg --add-architecture arm64
install_missing g++-aarch64-linux-gnu qemu-user-static qemu-system-arm cpio \
  android-liblog-dev:arm64 android-libbase-dev:arm64 android-libcutils-dev:arm64 \
  libgtest-dev:arm64 libcrypt1:arm64

vm=build/vm
mkdir -p $vm
# The machine's own programs (busybox for init and the tools, mksh as /bin/sh as on Android,
# toybox as ps) are unpacked from their arm64 packages, never installed: installed, they would
# take the place of the host's own (the host tests run the host's toybox as the device's ps).
for pkg in busybox-static mksh toybox; do
  if [ ! -e $vm/pkgs/$pkg.done ]; then
    mkdir -p $vm/pkgs && rm -f $vm/pkgs/${pkg}_*.deb
    (cd $vm/pkgs && apt-get download -q "$pkg:arm64" 2>&1 |
      grep -v '^W: Download is performed unsandboxed' || true)
    dpkg-deb -x $vm/pkgs/${pkg}_*.deb $vm/pkgs/root
    touch $vm/pkgs/$pkg.done
  fi
done

# Debian's arm64 kernel and its modules, unpacked from the package, never installed.
kpkg=$(apt-cache depends linux-image-arm64:arm64 | awk '/Depends: linux-image-/ {print $2; exit}')
kpkg=${kpkg%:arm64}
if [ ! -e $vm/kernel/$kpkg ]; then
  rm -rf $vm/kernel && mkdir -p $vm/kernel
  (cd $vm/kernel && apt-get download -q "$kpkg:arm64" 2>&1 |
    grep -v '^W: Download is performed unsandboxed' || true)
  dpkg-deb -x $vm/kernel/"$kpkg"_*.deb $vm/kernel/root
  touch $vm/kernel/$kpkg
fi
vmlinuz=$(ls $vm/kernel/root/boot/vmlinuz-*)
modules=$(ls -d $vm/kernel/root/lib/modules/*)
echo "== kernel: $kpkg ($(basename "$vmlinuz"))"

echo "== arm64 build: the daemon, the stand-in, stall_ward_tests"
cmake --no-warn-unused-cli -S . -B $vm/arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake \
  -DSTALL_WARD_ON_TARGET=ON >/dev/null
cmake --build $vm/arm64 -j2 --target stall_ward stand_in unit_tests

echo "== initramfs"
root=$vm/root
rm -rf $root
mkdir -p $root/{bin,etc,proc,sys,dev,tmp,data,lib/modules,system/bin,system/hang}
echo root:x:0:0:root:/:/bin/sh >$root/etc/passwd
echo root:x:0: >$root/etc/group
# A program and the arm64 libraries it loads, each at its own path.
put() {
  install -D "$1" "$root/$2"
  local lib
  local libs
  libs=$(qemu-aarch64-static /lib/ld-linux-aarch64.so.1 --list "$1" | awk '/=>/ {print $3}')
  for lib in $libs; do
    [ -e "$root$lib" ] || install -D "$lib" "$root$lib"
  done
}
install -D /lib/ld-linux-aarch64.so.1 $root/lib/ld-linux-aarch64.so.1
cp $vm/pkgs/root/bin/busybox $root/bin/
for applet in $(qemu-aarch64-static $root/bin/busybox --list); do
  case $applet in busybox | ps | sh) ;; *) ln -s busybox "$root/bin/$applet" ;; esac
done
put $vm/pkgs/root/bin/mksh /bin/sh
put $vm/pkgs/root/bin/toybox /bin/toybox
put $vm/arm64/stall_ward /system/bin/stall_ward
put $vm/arm64/stand_in /system/bin/stall_ward_stand_in
cp tests/android-ps/ps $root/system/bin/ps
printf '#!/bin/sh\n# A ps that hangs for 12 s.\nexec sleep 12\n' >$root/system/hang/ps
chmod +x $root/system/hang/ps
put $vm/arm64/tests/unit_tests /data/nativetest64/stall_ward_tests/stall_ward_tests
cp $vm/arm64/stand_in $root/data/nativetest64/stall_ward_tests/stall_ward_stand_in
for m in reed_solomon ramoops brd crc16 crc32c_generic mbcache jbd2 ext4 binder_linux; do
  cp "$(find "$modules" -name $m.ko)" $root/lib/modules/
done
cp scripts/vm/init $root/init
(cd $root && find . | cpio -o -H newc --quiet) | gzip -1 >$vm/initramfs.cpio.gz

# boot NAME SECONDS: the machine with scenario NAME until it powers off, ended by SECONDS of timeout
# otherwise. 512 MiB, of which the kernel may use 496: ramoops keeps the top megabyte. A panic
# restarts the machine after a second, as a device does, so the boot after it reads pstore.
boot() {
  local log=$vm/$1.log t0=$SECONDS extra=-no-reboot
  case $1 in panic | reboot) extra= ;; esac  # elsewhere a restart ends qemu
  # (pauth-impdef: a cheaper pointer authentication to emulate, five times faster to boot)
  qemu-system-aarch64 $extra -M virt -cpu max,pauth-impdef=on -smp 2 -m 512 -display none \
    -monitor none -nic none -serial "file:$log" -kernel "$vmlinuz" -initrd $vm/initramfs.cpio.gz \
    -append "console=ttyAMA0 mem=496M panic=1 sw=$1" </dev/null >$vm/$1.qemu 2>&1 &
  local pid=$!
  while kill -0 $pid 2>/dev/null && [ $((SECONDS - t0)) -lt "$2" ]; do sleep 1; done
  if kill -0 $pid 2>/dev/null; then
    echo "timeout after $2 s" >>$vm/$1.qemu
    kill $pid
  fi
  wait $pid || true
  tr -d '\r' <"$log" >"$log.tmp" && mv "$log.tmp" "$log"
  echo "$((SECONDS - t0))" >$vm/$1.time
}

# Checks of one scenario's serial log: "has TEXT" must be in it, "line TEXT" a whole line of it.
# The stand-in's pid and first thread's id are $pid and $tid.
failed=0
has() {
  if grep -qF -- "$1" "$log"; then return 0; fi
  echo "  missing: $1"
  ok=0
}
line() {
  if grep -qxF -- "$1" "$log"; then return 0; fi
  echo "  no line: $1"
  ok=0
}
check() {
  local name=$1
  log=$vm/$name.log ok=1
  read -r _ _ _ pid tid _ < <(grep -m1 '^@@ stand-in 0 ' "$log" || echo x x x x x)
  grep -q '^@@ end' "$log" || { echo "  the machine did not power off"; ok=0; }
  case $name in
    blocked | ps)
      has "stall_ward: dumped $pid D"
      has "stall_ward: killing proc $pid"
      line "@@ exit 0 137"
      line "@@ signals 0 "
      has "sysrq: Show Blocked State"
      has "task:watchdog        state:D"
      has "pid:$tid "
      has " el0t_64_sync+"  # an arm64 stack
      has "sysrq: Show backtrace of all active CPUs"
      if [ $name = blocked ]; then
        has "INFO: task touch:"  # the kernel's own detector, on a write to a frozen file system
        has " blocked for more than 10 seconds."
        ! grep -q 'stall_ward: \[sh\] cmd=ps -e|grep' "$log" || { echo "  ps used"; ok=0; }
      else
        has "stall_ward: [sh] cmd=ps -e|grep system_server"
        has "stall_ward: [sh] cmd=ps -T -p $pid |grep watchdog"
      fi ;;
    zombie)
      has "stall_ward: [sh] cmd=ps -e|grep surfaceflinger"
      has "stall_ward: dumped $pid Z"
      line "@@ signals 0 sig=35 "
      has "sysrq: Show Blocked State"
      line "@@ exit 0 137" ;;
    app)
      has "stall_ward: dumped $pid"
      line "@@ signals 1 sig=3 sig=35 "
      has "@@ dump trace_00"
      has "@@ dump tombstone_00"
      has "stall_ward: killing proc $pid"
      line "@@ exit 0 0" ;;
    panic)
      has "stall_ward: dumped $pid D"
      has "stall_ward: trigger crash according to policy"
      has "sysrq: Trigger a crash"
      has "Kernel panic - not syncing: sysrq triggered crash"
      has "@@ pstore dmesg-ramoops-0"
      # the crashed boot's record, read by the next boot, holds the dumps and the crash
      sed -n '/^@@ pstore dmesg-ramoops-0/,/^@@ pstore end/p' "$log" >$vm/panic.pstore
      for t in "sysrq: Show Blocked State" "task:watchdog        state:D" \
        "sysrq: Show backtrace of all active CPUs" \
        "Kernel panic - not syncing: sysrq triggered crash"; do
        grep -qF "$t" $vm/panic.pstore || { echo "  not in pstore: $t"; ok=0; }
      done ;;
    reboot)
      has "stall_ward: dumped $pid D"
      has "stall_ward: rebooting"
      has "reboot: Restarting system with command 'stall_ward'"
      has "@@ pstore dmesg-ramoops-0"
      sed -n '/^@@ pstore dmesg-ramoops-0/,/^@@ pstore end/p' "$log" |
        grep -qF "reboot: Restarting system with command 'stall_ward'" ||
        { echo "  the next boot's pstore record lacks the restart"; ok=0; } ;;
    alarm)
      has "stall_ward: Alarm! self stuck!"
      has "stall_ward: long time cost: "
      has "sysrq: Show Blocked State"
      has "sysrq: Show backtrace of all active CPUs" ;;
    binder | binder-d | binder-cycle)
      # $pid is system_server's, $tid its watchdog thread's: its call is in the driver's state
      has "stall_ward: dumped $pid"
      line "@@ bugreport end"
      has "outgoing transaction"
      has " from $pid:$tid to "
      case $name in
        binder-d) has "task:vold            state:D" ;;
        binder-cycle) has "context hwbinder" && has " HwBinder:" ;;
      esac ;;
    unit)
      line "@@ unit status 0"
      has "[  PASSED  ]"
      ! grep -q '\[  SKIPPED \]\|\[  FAILED  \]' "$log" ||
        { echo "  a case skipped or failed"; ok=0; } ;;
  esac
  if [ $ok = 1 ]; then
    echo "PASS $name ($(cat $vm/$name.time) s)"
  else
    echo "FAIL $name ($(cat $vm/$name.time) s; serial log $log)"
    failed=$((failed + 1))
  fi
}

scenarios=(${@:-blocked ps zombie app panic reboot alarm binder binder-d binder-cycle unit})
echo "== ${#scenarios[@]} boots, at most 4 at a time ($((SECONDS - start)) s so far)"
t0=$SECONDS
running=0
for name in "${scenarios[@]}"; do
  boot "$name" 240 &
  running=$((running + 1))
  if [ $running -ge 4 ]; then wait -n; running=$((running - 1)); fi
done
wait
echo "== results (boots took $((SECONDS - t0)) s, everything $((SECONDS - start)) s)"
for name in "${scenarios[@]}"; do check "$name"; done
echo "$((${#scenarios[@]} - failed)) passed, $failed failed"
[ $failed = 0 ]
