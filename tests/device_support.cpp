// The tests' view of the platform on a device: properties are the real ones, and the daemon's log
// lines are copied to stderr in logcat's threadtime shape, where LogCapture reads them.
#include <android-base/properties.h>
#include <android/log.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "helpers.h"

void use_properties(const std::string& content) {
  static const char* const kKeys[] = {"persist.vendor.sw.enable",
                                      "persist.vendor.sw.debug",
                                      "persist.vendor.sw.timeout",
                                      "persist.vendor.sw.policy",
                                      "persist.vendor.sw.processes",
                                      "k",
                                      "n",
                                      "s",
                                      "b",
                                      "other"};
  for (const char* key : kKeys) {
    std::string value, prefix = std::string(key) + "=";
    std::istringstream in(content);
    for (std::string line; std::getline(in, line);) {
      if (line.rfind(prefix, 0) == 0) value = line.substr(prefix.size());
    }
    android::base::SetProperty(key, value);  // empty reads as unset
  }
}

bool host_property_store() {
  return false;
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
