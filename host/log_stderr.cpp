// On a host, every log line of the daemon goes to stderr in logcat's threadtime layout, at every
// priority, DEBUG included. liblog's own host logger uses another layout and drops DEBUG, so a
// logger of ours is installed before main runs. Each line leaves in a single write(2): the
// SIGALRM handler logs too, and its line must not interleave with one cut short.
#include <android/log.h>
#include <log/logprint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace {

AndroidLogFormat* threadtime_format;

void threadtime_logger(const __android_logger_data* data, const char* message) {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  AndroidLogEntry entry = {};
  entry.tv_sec = now.tv_sec;
  entry.tv_nsec = now.tv_nsec;
  entry.priority = static_cast<android_LogPriority>(data->priority);
  entry.pid = getpid();
  entry.tid = static_cast<int32_t>(syscall(SYS_gettid));
  entry.tag = data->tag != nullptr ? data->tag : "";
  entry.tagLen = strlen(entry.tag);
  entry.message = message;
  entry.messageLen = strlen(message);
  // Messages are at most liblog's 1023 bytes, so the line fits and nothing is allocated.
  char buf[1536];
  size_t len = 0;
  char* line = android_log_formatLogLine(threadtime_format, buf, sizeof(buf), &entry, &len);
  if (line == nullptr) return;
  ssize_t ignored = write(STDERR_FILENO, line, len);
  (void)ignored;
  if (line != buf) free(line);
}

struct InstallLogger {
  InstallLogger() {
    threadtime_format = android_log_format_new();
    android_log_setPrintFormat(threadtime_format, FORMAT_THREADTIME);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    __android_log_set_logger(threadtime_logger);
  }
} install_logger;

}  // namespace
