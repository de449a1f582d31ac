// Every line the daemon logs, defined once: its printf format, its priority, and whether it is
// written only while the debug property is on. The daemon logs through sw_log(Msg, ...) and
// nothing else; readers of its log match lines against the same formats.
#pragma once

#include <android/log.h>
#include <stddef.h>

enum class Msg : int {
  kStarted,
  kInitFailed,
  kLongCost,
  kAlarm,
  kEntryWithoutProcess,
  kMonitorThreads,
  kMonitorMain,
  kRecordsFollow,
  kNotInList,
  kFindRecord,
  kReadFailed,
  kSchedstatFailed,
  kSwitches,
  kStatFailed,
  kStatSample,
  kStatMismatch,
  kRebind,
  kNotWatchedState,
  kNoInfo,
  kReading,
  kTaskDirFailed,
  kCheckThread,
  kThreadNotStarted,
  kProcWalk,
  kProcDirFailed,
  kFoundProcess,
  kProcWalkEnd,
  kFrozen,
  kProcessNotStarted,
  kDumpedThread,
  kDumped,
  kSysrqFailed,
  kPolicyPanic,
  kPolicyReboot,
  kPolicyNothing,
  kPolicyKill,
  kGetNumber,
  kGetString,
  kShellCommand,
  kShellFailed,
  kShellOutput,
  kShellSelfTest,
  kShellProcessMissing,
  kShellThreadMissing,
  kShellThreadId,
  kListItem,  // one name a line after kMonitorThreads or kRecordsFollow
  kCount
};

struct Message {
  Msg id;
  android_LogPriority priority;
  bool debug_only;
  const char* format;
};

constexpr bool kAlways = false;
constexpr bool kDebugOnly = true;

// In the order a reader tries them: a format that another one also matches comes first, the bare
// list item last.
constexpr Message kMessages[] = {
    {Msg::kStarted, ANDROID_LOG_DEBUG, kAlways, "started"},
    {Msg::kInitFailed, ANDROID_LOG_ERROR, kAlways, "init failed because of open proc"},
    {Msg::kLongCost, ANDROID_LOG_ERROR, kDebugOnly, "long time cost: %lld"},
    {Msg::kAlarm, ANDROID_LOG_ERROR, kDebugOnly, "Alarm! self stuck!"},
    {Msg::kEntryWithoutProcess, ANDROID_LOG_INFO, kDebugOnly,
     "monitor entry \"%s\" names no process, skipped"},
    {Msg::kMonitorThreads, ANDROID_LOG_DEBUG, kDebugOnly, "monitor %s threads:"},
    {Msg::kMonitorMain, ANDROID_LOG_DEBUG, kDebugOnly, "monitor %s main"},
    {Msg::kRecordsFollow, ANDROID_LOG_DEBUG, kDebugOnly, "mTids:"},
    {Msg::kNotInList, ANDROID_LOG_INFO, kDebugOnly, "%s not in monitor list"},
    {Msg::kFindRecord, ANDROID_LOG_INFO, kDebugOnly, "find record for %s"},
    {Msg::kReadFailed, ANDROID_LOG_INFO, kDebugOnly, "Read %s failed"},
    {Msg::kSchedstatFailed, ANDROID_LOG_INFO, kDebugOnly, "read schedstat failed %s"},
    {Msg::kSwitches, ANDROID_LOG_INFO, kDebugOnly, "switches:%lu"},
    {Msg::kStatFailed, ANDROID_LOG_INFO, kDebugOnly, "read stat failed"},
    {Msg::kStatSample, ANDROID_LOG_INFO, kDebugOnly,
     "match=%d, tid=%u, comm=%s, state=%c, ppid=%u, utime=%u, stime=%u"},
    {Msg::kStatMismatch, ANDROID_LOG_INFO, kDebugOnly, "stat err match"},
    {Msg::kRebind, ANDROID_LOG_INFO, kDebugOnly, "change tid=%u comm=%s cmd=%s"},
    {Msg::kNotWatchedState, ANDROID_LOG_INFO, kDebugOnly, "Not monitor state=%c"},
    {Msg::kNoInfo, ANDROID_LOG_INFO, kDebugOnly, "read_stat_with_proc nullptr"},
    {Msg::kReading, ANDROID_LOG_INFO, kDebugOnly, "reading %s"},
    {Msg::kTaskDirFailed, ANDROID_LOG_INFO, kDebugOnly, "open %s failed"},
    {Msg::kCheckThread, ANDROID_LOG_INFO, kDebugOnly, "check monitor thread:%s"},
    {Msg::kThreadNotStarted, ANDROID_LOG_INFO, kDebugOnly, "thread %s not start"},
    {Msg::kProcWalk, ANDROID_LOG_INFO, kDebugOnly, "go through proc"},
    {Msg::kProcDirFailed, ANDROID_LOG_ERROR, kDebugOnly, "opendir %s failed!"},
    {Msg::kFoundProcess, ANDROID_LOG_INFO, kDebugOnly, "find monitored proc %s:%s"},
    {Msg::kProcWalkEnd, ANDROID_LOG_INFO, kDebugOnly, "close proc"},
    {Msg::kShellCommand, ANDROID_LOG_INFO, kDebugOnly, "[sh] cmd=%s"},
    {Msg::kShellFailed, ANDROID_LOG_INFO, kDebugOnly, "[sh] %s failed"},
    {Msg::kShellOutput, ANDROID_LOG_INFO, kDebugOnly, "[sh] ret=%s"},
    {Msg::kShellSelfTest, ANDROID_LOG_INFO, kDebugOnly, "[sh] sw=%s ret=%d"},
    {Msg::kShellProcessMissing, ANDROID_LOG_INFO, kDebugOnly, "[sh] proc %s not started"},
    {Msg::kShellThreadMissing, ANDROID_LOG_INFO, kDebugOnly, "[sh] thread %s not found"},
    {Msg::kShellThreadId, ANDROID_LOG_INFO, kDebugOnly, "[sh] tid=%s"},
    {Msg::kFrozen, ANDROID_LOG_INFO, kDebugOnly, "%s frozen"},
    {Msg::kProcessNotStarted, ANDROID_LOG_INFO, kDebugOnly, "%s proc not started"},
    {Msg::kDumpedThread, ANDROID_LOG_INFO, kDebugOnly, "dumped %u %c"},
    {Msg::kDumped, ANDROID_LOG_INFO, kDebugOnly, "dumped %u"},
    {Msg::kSysrqFailed, ANDROID_LOG_ERROR, kAlways, "open sysrq failed!"},
    {Msg::kPolicyPanic, ANDROID_LOG_INFO, kDebugOnly, "trigger crash according to policy"},
    {Msg::kPolicyReboot, ANDROID_LOG_INFO, kDebugOnly, "rebooting"},
    {Msg::kPolicyNothing, ANDROID_LOG_INFO, kDebugOnly, "nothing to do accroding to policy"},
    {Msg::kPolicyKill, ANDROID_LOG_INFO, kDebugOnly, "killing proc %u"},
    {Msg::kGetNumber, ANDROID_LOG_INFO, kDebugOnly, "get %s =%d"},
    {Msg::kGetString, ANDROID_LOG_INFO, kDebugOnly, "get %s =%s"},
    {Msg::kListItem, ANDROID_LOG_DEBUG, kDebugOnly, "%s"},
};

constexpr size_t kMessageCount = static_cast<size_t>(Msg::kCount);
static_assert(sizeof(kMessages) / sizeof(kMessages[0]) == kMessageCount,
              "one entry for every message");

// The entry of a message.
constexpr const Message& message(Msg id) {
  size_t i = 0;
  while (kMessages[i].id != id) ++i;
  return kMessages[i];
}

// Writes the message with its arguments at its priority under the daemon's tag, unless it is a
// debug line and the debug property is off. Safe to call where __android_log_print is.
void sw_log(Msg id, ...);

// What the daemon's shell lookups run, and the path it samples a task by. The ps self-test: its
// output shows the daemon under its own pid when ps works for it.
constexpr const char* kPsSelfTest = "ps -e |grep stall_ward";
constexpr const char* kPsProcessQuery = "ps -e|grep ";
constexpr const char* kPsThreadQuery = "ps -T -p ";
constexpr const char* kTaskPathFormat = "/proc/%d/task/%d";
