#include "support/faults.h"
#include "base/counter.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <glob.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>
#include <wordexp.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

#define VLL_FAULT(name, ...) kCall_##name,
#define VLL_FAULT_BLOCKING VLL_FAULT
#define VLL_FAULT_POSTING VLL_FAULT
#define VLL_FAULT_RESULT VLL_FAULT
enum Call {
#include "support/faults.def"
    kCallCount
};

#define VLL_FAULT(name, ...) #name,
#define VLL_FAULT_BLOCKING VLL_FAULT
#define VLL_FAULT_POSTING VLL_FAULT
#define VLL_FAULT_RESULT VLL_FAULT
constexpr const char *kCallNames[] = {
#include "support/faults.def"
};

struct State {
    uint64_t count;
    int until;  // calls left until the failing one; 0: none fails
    int times;  // failures left
    int error;
    bool happened;
};

thread_local State states[kCallCount];

int findCall(const char *name) {
    for (int i = 0; i < kCallCount; ++i) {
        if (strcmp(kCallNames[i], name) == 0) {
            return i;
        }
    }
    abort();  // a test names a call that faults.def does not list
}

// The error with which this call fails, or 0.
int nextError(Call call) {
    State &state = states[call];
    ++state.count;
    if (state.until == 0 || --state.until > 0) {
        return 0;
    }
    if (--state.times > 0) {
        state.until = 1;
    }
    state.happened = true;
    if (state.error < 0) {
        raise(-state.error);
        return 0;
    }
    return state.error;
}

void nothing() {}

}  // namespace

FailCall::FailCall(const char *call, int nth, int error, int times) : call_(findCall(call)) {
    State &state = states[call_];
    state.until = nth;
    state.times = times;
    state.error = error;
    state.happened = false;
}

FailCall::~FailCall() {
    states[call_].until = 0;
}

bool FailCall::happened() const {
    return states[call_].happened;
}

uint64_t callCount(const char *call) {
    return states[findCall(call)].count;
}

void resetCallCounts() {
    for (State &state : states) {
        state.count = 0;
    }
}

// When a thread is cancelled inside one of ThreadSanitizer's interceptors, ThreadSanitizer ignores every lock that
// the thread takes while it unwinds. So under it the calls in which threads are cancelled go to the C library itself,
// and annotations announce the order that a semaphore makes. The functions are looked up before any thread runs: a
// child that is forked while another thread is inside dlopen() would find ThreadSanitizer's lock held for ever.
#if defined(__SANITIZE_THREAD__)
#define VLL_REAL_BLOCKING(name) libc_##name
#define VLL_FIND_BLOCKING(name, type, parameters) \
    auto *const libc_##name =                     \
        reinterpret_cast<type(*) parameters>(dlsym(dlopen("libc.so.6", RTLD_LAZY | RTLD_NOLOAD), #name));
#else
#define VLL_REAL_BLOCKING(name) __real_##name
#define VLL_FIND_BLOCKING(name, type, parameters)
#endif

extern "C" {
#define VLL_FAULT(name, type, parameters, arguments, failure) \
    VLL_FAULT_CALLING(name, type, parameters, arguments, failure, nothing, __real_##name, nothing)
#define VLL_FAULT_BLOCKING(name, type, parameters, arguments, failure)                              \
    VLL_FIND_BLOCKING(name, type, parameters)                                                       \
    VLL_FAULT_CALLING(name, type, parameters, arguments, failure, nothing, VLL_REAL_BLOCKING(name), \
                      vlliAnnotateAcquire)
#define VLL_FAULT_POSTING(name, type, parameters, arguments, failure) \
    VLL_FAULT_CALLING(name, type, parameters, arguments, failure, vlliAnnotateRelease, __real_##name, nothing)
#define VLL_FAULT_CALLING(name, type, parameters, arguments, failure, before, function, after) \
    type __real_##name parameters;                                                             \
    type __wrap_##name parameters {                                                            \
        if (const int error = nextError(kCall_##name)) {                                       \
            errno = error;                                                                     \
            return failure;                                                                    \
        }                                                                                      \
        (before)();                                                                            \
        type const result = function arguments;                                                \
        (after)();                                                                             \
        return result;                                                                         \
    }
#define VLL_FAULT_RESULT(name, type, parameters, arguments) \
    type __real_##name parameters;                          \
    type __wrap_##name parameters {                         \
        if (const int error = nextError(kCall_##name)) {    \
            return error;                                   \
        }                                                   \
        return __real_##name arguments;                     \
    }
#include "support/faults.def"

// poll() in a build that checks its buffers (_FORTIFY_SOURCE).
int __wrap___poll_chk(pollfd *fds, nfds_t count, int timeout, size_t /*size*/) {
    return __wrap_poll(fds, count, timeout);
}
}
