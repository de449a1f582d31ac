// Host stand-in for libcutils' android_reboot. On a device init performs the reboot; here the
// kernel is asked directly, and only when the caller has opted in, because a test that reaches a
// reboot must not take the machine down (run it inside a new PID namespace, where the kernel
// answers a reboot request by ending the namespace's init).
#include <android/log.h>
#include <cutils/android_reboot.h>
#include <linux/reboot.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

int android_reboot(unsigned cmd, int /*flags*/, const char* arg) {
  const char* allow = getenv("STALL_WARD_ALLOW_REBOOT");
  if (allow == nullptr || strcmp(allow, "1") != 0) {
    __android_log_print(ANDROID_LOG_ERROR, "stall_ward",
                        "android_reboot refused: STALL_WARD_ALLOW_REBOOT=1 is not set");
    return -1;
  }
  if (cmd != ANDROID_RB_RESTART2) {
    __android_log_print(ANDROID_LOG_ERROR, "stall_ward",
                        "android_reboot refused: only ANDROID_RB_RESTART2 is supported here");
    return -1;
  }
  return static_cast<int>(syscall(SYS_reboot, LINUX_REBOOT_MAGIC1, LINUX_REBOOT_MAGIC2,
                                  LINUX_REBOOT_CMD_RESTART2, arg != nullptr ? arg : ""));
}
