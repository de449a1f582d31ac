#!/usr/bin/env bash
# Compiles the daemon's vendor policy (sepolicy/) together with Android 11's platform policy the way
# a device build does, so that any neverallow it breaks fails here, then checks with sesearch that
# the domain has each permission the daemon needs and nothing broader.
#   scripts/check-sepolicy.sh [--platform DIR]
# The platform policy is not part of this project: DIR is an AOSP system/sepolicy tree of Android 11
# (its public/, private/ and vendor/ folders), named by --platform or by the environment variable
# STALL_WARD_PLATFORM_SEPOLICY, else ../shared/android/sepolicy-api30 beside the repository when it
# exists. With none of them the check is skipped, says so, and succeeds, so that the other device
# checks still run.
set -euo pipefail
usage() { echo "usage: $0 [--platform DIR]" >&2; exit 64; }
platform=${STALL_WARD_PLATFORM_SEPOLICY:-}
while [ $# -gt 0 ]; do
  case $1 in
    --platform) [ $# -ge 2 ] || usage; platform=$2; shift 2 ;;
    --platform=*) platform=${1#--platform=}; shift ;;
    *) usage ;;
  esac
done
[ -z "$platform" ] || platform=$(realpath -m "$platform")  # as named from where it was named
cd "$(dirname "${BASH_SOURCE[0]}")/.."
if [ -z "$platform" ] && [ -d ../shared/android/sepolicy-api30 ]; then
  platform=../shared/android/sepolicy-api30
fi
if [ -z "$platform" ]; then
  echo "SKIPPED: the SELinux policy check needs Android 11's platform policy, which this project"
  echo "does not carry: name an AOSP system/sepolicy tree with --platform DIR or"
  echo "STALL_WARD_PLATFORM_SEPOLICY=DIR (none given, and no ../shared/android/sepolicy-api30)"
  exit 0
fi
if [ ! -d "$platform/public" ] || [ ! -d "$platform/private" ]; then
  echo "FAIL: $platform is not a system/sepolicy tree (no public/ and private/ in it)"; exit 1
fi
echo "platform policy: $platform"
out=build/sepolicy
mkdir -p "$out"

# The concatenation order of a device build, each kind from public, private, vendor, then ours.
kinds=(security_classes initial_sids access_vectors global_macros neverallow_macros mls_macros
       mls_decl mls policy_capabilities te_macros attributes ioctl_defines ioctl_macros '*.te'
       roles_decl roles users initial_sid_contexts fs_use genfs_contexts port_contexts)
files=()
for kind in "${kinds[@]}"; do
  for dir in "$platform/public" "$platform/private" "$platform/vendor" sepolicy; do
    for f in $dir/$kind; do [ -f "$f" ] && files+=("$f"); done
  done
done
m4 --fatal-warnings -s -D mls_num_sens=1 -D mls_num_cats=1024 -D target_build_variant=user \
  -D target_arch=arm64 -D target_full_treble=true -D target_compatible_property=true \
  -D target_treble_sysprop_neverallow=true -D target_with_native_coverage=false \
  -D target_with_dexpreopt=false -D target_with_asan=false -D target_recovery=false \
  -D target_requires_insecure_execmem_for_swiftshader=false -D target_exclude_build_test=false \
  "${files[@]}" >"$out/policy.conf"
checkpolicy -M -c 30 -o "$out/policy.bin" "$out/policy.conf" >"$out/checkpolicy.log" 2>&1 || {
  cat "$out/checkpolicy.log"; echo "FAIL: the policy does not compile"; exit 1; }

failed=0
check() {  # check present|absent <what> <sesearch arguments...>
  local want=$1 what=$2; shift 2
  local found; found=$(sesearch "$out/policy.bin" "$@" | grep -cw stall_ward || true)
  if { [ "$want" = present ] && [ "$found" -gt 0 ]; } || { [ "$want" = absent ] && [ "$found" -eq 0 ]; }; then
    echo "ok: $what"
  else
    echo "FAIL: $what ($want expected)"; sesearch "$out/policy.bin" "$@" | head -5; failed=1
  fi
}
check present "reads /proc of every domain" --allow -s stall_ward -t system_server -c file -p read
check present "reads /proc directories of every domain" --allow -s stall_ward -t kernel -c dir -p search
check present "writes the SysRq trigger" --allow -s stall_ward -t proc_sysrq -c file -p write
check present "signals any domain" --allow -s stall_ward -t surfaceflinger -c process -p signal
check present "kills any domain" --allow -s stall_ward -t system_server -c process -p sigkill
check present "has CAP_KILL" --allow -s stall_ward -t stall_ward -c capability -p kill
check present "sets sys.powerctl" --allow -s stall_ward -t powerctl_prop -c property_service -p set
check present "reads its properties" --allow -s stall_ward -t vendor_stall_ward_prop -c file -p read
check present "runs the vendor shell" --allow -s stall_ward -t vendor_shell_exec -c file -p execute
check present "runs the vendor toolbox" --allow -s stall_ward -t vendor_toolbox_exec -c file -p execute
check present "is started by init" --type_trans -s init -t stall_ward_exec -c process
check absent "no ptrace" --allow -s stall_ward -c process -p ptrace
check absent "no dac_read_search" --allow -s stall_ward -c capability -p dac_read_search
check absent "no sys_ptrace" --allow -s stall_ward -c capability -p sys_ptrace
check absent "no dac_override" --allow -s stall_ward -c capability -p dac_override
check absent "runs no system_file" --allow -s stall_ward -t system_file -c file -p execute
check absent "writes no files but the trigger" --allow -s stall_ward -t proc -c file -p write
# The contexts name types the policy knows.
for t in $(awk '{print $2}' sepolicy/file_contexts sepolicy/property_contexts | cut -d: -f3); do
  if seinfo "$out/policy.bin" -t "$t" >/dev/null 2>&1; then echo "ok: type $t exists"; else
    echo "FAIL: type $t in the contexts files is not in the policy"; failed=1; fi
done
[ "$failed" -eq 0 ] && echo "sepolicy: all checks passed"
exit "$failed"
