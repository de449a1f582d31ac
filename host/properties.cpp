// Host stand-in for the libcutils property readers, backed by a file in build.prop form named by
// STALL_WARD_PROPERTIES, read as init reads such a file (property_file.h). Without the variable
// there are no properties. A file that others than its owner may write, or that neither root nor
// the daemon's user owns, is refused. The conversions follow libcutils.
#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <android/log.h>
#include <ctype.h>
#include <cutils/properties.h>
#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/system_properties.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "property_file.h"

namespace {

constexpr const char* kTag = "stall_ward";

struct PropertyFile {
  bool loaded = false;
  std::string path;  // the STALL_WARD_PROPERTIES value the table was read from
  std::unordered_map<std::string, std::string> values;
  std::vector<PropertyRefusal> refusals;
};

}  // namespace

namespace {

std::unique_ptr<std::unordered_map<std::string, std::string>>& given_values() {
  static std::unique_ptr<std::unordered_map<std::string, std::string>> values;
  return values;
}

// The file currently named by STALL_WARD_PROPERTIES, read once per file name.
const PropertyFile& property_file() {
  static PropertyFile file;
  if (given_values() != nullptr) {
    file.values = *given_values();
    return file;
  }
  const char* env = getenv("STALL_WARD_PROPERTIES");
  std::string path = env != nullptr ? env : "";
  if (file.loaded && file.path == path) return file;
  file.loaded = true;
  file.path = path;
  file.values.clear();
  file.refusals.clear();
  if (path.empty()) return file;
  // The values reach a shell command line run as root: only root or the daemon's own user may
  // be able to change them.
  std::string text;
  android::base::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat st = {};
  if (fd < 0 || fstat(fd, &st) != 0 || !android::base::ReadFdToString(fd, &text)) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "cannot read property file %s: %s", path.c_str(),
                        strerror(errno));
    file.refusals.push_back({"", std::string("cannot be read: ") + strerror(errno)});
    return file;
  }
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0 || (st.st_uid != 0 && st.st_uid != geteuid())) {
    __android_log_print(ANDROID_LOG_ERROR, kTag,
                        "property file %s ignored: it must be owned by root or uid %d and "
                        "writable by its owner alone",
                        path.c_str(), static_cast<int>(geteuid()));
    file.refusals.push_back({"", "ignored: it must be owned by root or uid " +
                                     std::to_string(geteuid()) +
                                     " and writable by its owner alone"});
    return file;
  }
  // As init loads a file: the last line for a key wins, and is then set or refused.
  std::unordered_map<std::string, std::string> last;
  for (const PropertyLine& line : parse_property_text(path, text).lines)
    last[line.key] = line.value;
  for (const auto& [key, value] : last) {
    std::string why = property_refusal(key, value);
    if (why.empty()) {
      file.values[key] = value;
      continue;
    }
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: value of %s is %s: ignored", path.c_str(),
                        key.c_str(), why.c_str());
    file.refusals.push_back({key, why});
  }
  return file;
}

const std::unordered_map<std::string, std::string>& properties() {
  return property_file().values;
}

}  // namespace

void use_property_values(const std::unordered_map<std::string, std::string>& values) {
  given_values() = std::make_unique<std::unordered_map<std::string, std::string>>(values);
}

const std::vector<PropertyRefusal>& property_refusals() {
  return property_file().refusals;
}

// bionic's property enumeration, over the file's table: a prop_info stands for one of its entries.
using Entry = std::unordered_map<std::string, std::string>::value_type;

int __system_property_foreach(void (*propfn)(const prop_info* pi, void* cookie), void* cookie) {
  for (const auto& entry : properties()) {
    propfn(reinterpret_cast<const prop_info*>(&entry), cookie);  // read back as an Entry
  }
  return 0;
}

void __system_property_read_callback(const prop_info* pi,
                                     void (*callback)(void* cookie, const char* name,
                                                      const char* value, uint32_t serial),
                                     void* cookie) {
  const Entry* entry = reinterpret_cast<const Entry*>(pi);
  callback(cookie, entry->first.c_str(), entry->second.c_str(), 0);
}

int property_get(const char* key, char* value, const char* default_value) {
  size_t len = 0;
  const auto& values = properties();
  auto it = key != nullptr ? values.find(key) : values.end();
  if (it != values.end() && !it->second.empty()) {
    len = it->second.size();  // below PROPERTY_VALUE_MAX: longer values are never stored
    memcpy(value, it->second.c_str(), len + 1);
  } else if (default_value != nullptr) {
    len = strnlen(default_value, PROPERTY_VALUE_MAX - 1);
    memcpy(value, default_value, len);
    value[len] = '\0';
  } else {
    value[0] = '\0';
  }
  return static_cast<int>(len);
}

int8_t property_get_bool(const char* key, int8_t default_value) {
  char buf[PROPERTY_VALUE_MAX] = {};
  property_get(key, buf, "");
  static const char* const kTrue[] = {"1", "y", "yes", "on", "true"};
  static const char* const kFalse[] = {"0", "n", "no", "off", "false"};
  for (const char* word : kTrue) {
    if (strcmp(buf, word) == 0) return 1;
  }
  for (const char* word : kFalse) {
    if (strcmp(buf, word) == 0) return 0;
  }
  return default_value;
}

int64_t property_get_int64(const char* key, int64_t default_value) {
  char buf[PROPERTY_VALUE_MAX] = {};
  if (property_get(key, buf, "") == 0) return default_value;
  char* end = nullptr;
  int saved_errno = errno;
  errno = 0;
  intmax_t result = strtoimax(buf, &end, 0);
  bool overflow = errno == ERANGE && (result == INTMAX_MIN || result == INTMAX_MAX);
  errno = saved_errno;
  if (end == buf || overflow) return default_value;
  return result;
}
