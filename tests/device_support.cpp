// The tests' view of the platform on a device. The test binary must never change the device: it
// is built without libcutils, so it has no way to reboot, and reads properties from a file of its
// own through the host's property store (host/properties.cpp) instead of the device's real ones.
// The daemon's log lines are copied to stderr in logcat's threadtime shape, where LogCapture
// reads them.
#include <android/log.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "helpers.h"

std::string temp_root() {  // the directory the test binary was installed in: no /tmp here
  std::string self = std::filesystem::read_symlink("/proc/self/exe");
  return self.substr(0, self.rfind('/'));
}

int android_reboot(unsigned /*cmd*/, int /*flags*/, const char* /*arg*/) {
  __android_log_print(ANDROID_LOG_ERROR, "stall_ward",
                      "android_reboot refused: a test never reboots");
  return -1;
}

namespace {

void stderr_logger(const __android_log_message* m) {
  static const char kPrio[] = "??VDIWEF";
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  tm t = {};
  localtime_r(&now.tv_sec, &t);
  char line[1536];
  int n = snprintf(line, sizeof(line), "%02d-%02d %02d:%02d:%02d.%03ld %5d %5d %c %s: %s\n",
                   t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, now.tv_nsec / 1000000,
                   getpid(), gettid(), kPrio[m->priority & 7], m->tag, m->message);
  if (n > 0) {
    ssize_t ignored =
        write(STDERR_FILENO, line, std::min(static_cast<size_t>(n), sizeof(line) - 1));
    (void)ignored;
  }
  __android_log_logd_logger(m);
}

struct Install {
  Install() {
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    __android_log_set_logger(stderr_logger);
  }
} install;

}  // namespace
