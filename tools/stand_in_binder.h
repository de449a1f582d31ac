// The stand-in's binder side: raw ioctls on the kernel's binder driver, as a platform process and
// the services it calls make them, so that the driver's own state shows real calls that never
// return.
#pragma once

#include <string>

namespace stand_in {

// A synchronous call to the context manager (handle 0) of `device`; sets *ready once the driver
// has taken the call, then waits for the reply, which never comes.
[[noreturn]] void binder_call(const char* device, int* ready);

// --serve DEVICE,WHAT: becomes the context manager of DEVICE, with the main thread and (for `call`)
// a second thread named as the platform names binder threads waiting for calls. Each call takes
// the process's one lock, which is never released, then: `never` sleeps without answering, `D`
// waits uninterruptibly in vfork, `call:DEVICE2` calls the context manager of DEVICE2. False when
// the plan or the driver refuses.
bool binder_serve_setup(const std::string& plan);
// The main thread's part once set up: it serves calls for ever.
[[noreturn]] void binder_serve();

}  // namespace stand_in
