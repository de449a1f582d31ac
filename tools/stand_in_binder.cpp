// The stand-in's binder calls and services: raw ioctls on /dev/binder (or another of the driver's
// devices), with the driver's own UAPI header.
#include "stand_in_binder.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/android/binder.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>

namespace stand_in {
namespace {

constexpr size_t kMapSize = 128 * 1024;

int open_binder(const char* device) {
  int fd = open(device, O_RDWR | O_CLOEXEC);
  if (fd < 0) return -1;
  if (mmap(nullptr, kMapSize, PROT_READ, MAP_PRIVATE, fd, 0) == MAP_FAILED) {
    close(fd);
    return -1;
  }
  return fd;
}

// One exchange with the driver: writes `out` (may be empty), then reads what it has into `in`,
// waiting for it when `in` is given. The bytes read, or -1.
long exchange(int fd, const void* out, size_t out_size, uint32_t* in, size_t in_size) {
  binder_write_read bwr = {};
  bwr.write_buffer = reinterpret_cast<uintptr_t>(out);
  bwr.write_size = out_size;
  bwr.read_buffer = reinterpret_cast<uintptr_t>(in);
  bwr.read_size = in_size;
  int rc;
  do {
    rc = ioctl(fd, BINDER_WRITE_READ, &bwr);
  } while (rc < 0 && errno == EINTR && bwr.write_consumed < out_size);
  if (rc < 0 && errno != EINTR) return -1;
  return static_cast<long>(bwr.read_consumed);
}

// Whether the driver's answer holds the return command `want`.
bool holds(const uint32_t* in, long size, uint32_t want) {
  for (long at = 0; at + 4 <= size;) {
    uint32_t cmd;
    memcpy(&cmd, reinterpret_cast<const char*>(in) + at, 4);
    if (cmd == want) return true;
    at += 4 + _IOC_SIZE(cmd);
  }
  return false;
}

[[noreturn]] void forever() {
  for (;;) pause();
}

struct Service {
  std::string device, what, next;
  int fd = -1;
  pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
} service;

// A call has come: take the lock for good, then do what the service does.
[[noreturn]] void handle_call() {
  pthread_mutex_lock(&service.lock);
  if (service.what == "D") {
    // Uninterruptible until the vfork child execs or exits, which it never does.
    if (vfork() == 0) {
      prctl(PR_SET_NAME, "vfork-child");
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      forever();
    }
  } else if (service.what == "call") {
    int ready = 0;
    binder_call(service.next.c_str(), &ready);
  }
  forever();
}

[[noreturn]] void serve_loop(uint32_t looper_command) {
  exchange(service.fd, &looper_command, sizeof(looper_command), nullptr, 0);
  for (;;) {
    uint32_t in[64];
    long got = exchange(service.fd, nullptr, 0, in, sizeof(in));
    if (got < 0) forever();
    if (holds(in, got, BR_TRANSACTION)) handle_call();
  }
}

void* serve_thread(void*) {
  std::string base = service.device.substr(service.device.rfind('/') + 1);
  std::string name =
      (base == "hwbinder" ? "HwBinder:" : "binder:") + std::to_string(getpid()) + "_2";
  prctl(PR_SET_NAME, name.substr(0, 15).c_str());
  serve_loop(BC_REGISTER_LOOPER);
}

}  // namespace

void binder_call(const char* device, int* ready) {
  int fd = open_binder(device);
  if (fd < 0) forever();
  struct __attribute__((packed)) {
    uint32_t command = BC_TRANSACTION;
    binder_transaction_data tr = {};
  } call;
  call.tr.target.handle = 0;
  call.tr.code = 1;
  call.tr.flags = TF_ACCEPT_FDS;
  uint32_t in[64];
  long got = exchange(fd, &call, sizeof(call), in, sizeof(in));
  while (got >= 0 && !holds(in, got, BR_TRANSACTION_COMPLETE)) {
    got = exchange(fd, nullptr, 0, in, sizeof(in));
  }
  __atomic_store_n(ready, 1, __ATOMIC_SEQ_CST);
  // The reply never comes: the thread sleeps in the driver's wait for it.
  while (got >= 0 && !holds(in, got, BR_REPLY)) got = exchange(fd, nullptr, 0, in, sizeof(in));
  forever();
}

bool binder_serve_setup(const std::string& plan) {
  size_t comma = plan.find(',');
  if (comma == std::string::npos) return false;
  service.device = plan.substr(0, comma);
  service.what = plan.substr(comma + 1);
  if (service.what.compare(0, 5, "call:") == 0) {
    service.next = service.what.substr(5);
    service.what = "call";
  } else if (service.what != "never" && service.what != "D") {
    return false;
  }
  service.fd = open_binder(service.device.c_str());
  if (service.fd < 0 || ioctl(service.fd, BINDER_SET_CONTEXT_MGR, 0) != 0) return false;
  pthread_t thread;
  return service.what != "call" || pthread_create(&thread, nullptr, serve_thread, nullptr) == 0;
}

void binder_serve() {
  serve_loop(BC_ENTER_LOOPER);
}

}  // namespace stand_in
