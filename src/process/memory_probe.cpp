// Pointer probes. A byte is touched under a handler for the faults; the handler jumps out of the access, which
// would fault again for ever if it returned to it. Probes come one at a time: handler and flag are the process's.
//
// A fault of another thread in the meantime cannot be told from ours by a handler without siginfo other than by the
// thread. It ends the probe; the other thread faults again at once, and meets the former action as soon as that
// is restored.

#include <pthread.h>
#include <csetjmp>
#include <csignal>
#include <initializer_list>

#include "base/failure.h"
#include "base/guards.h"
#include "process/memory_probe.h"
#include "vwincompat/memory.h"

namespace {

// SIGBUS is what a mapping raises past the end of its file.
constexpr int kFaults[] = {SIGSEGV, SIGBUS};
constexpr size_t kFaultCount = sizeof kFaults / sizeof *kFaults;

pthread_mutex_t validation_mutex = PTHREAD_MUTEX_INITIALIZER;

uint32_t signal_raised;  // touched with atomic operations
pthread_t prober;        // valid while probing
int32_t probing;
sigjmp_buf probe_exit;

void vlliSignalHandler(int) {
    __atomic_store_n(&signal_raised, 1, __ATOMIC_RELAXED);
    if (__atomic_load_n(&probing, __ATOMIC_ACQUIRE) != 0 && pthread_equal(prober, pthread_self()) != 0) {
        siglongjmp(probe_exit, 1);
    }
}

// A child must inherit neither the lock of a probing thread nor its handler.
void lockForFork() {
    pthread_mutex_lock(&validation_mutex);
}

void unlockAfterFork() {
    pthread_mutex_unlock(&validation_mutex);
}

// The library's actions and signal mask for a scope. Everything but faults is held back, so that no handler
// starts a probe of its own inside ours; faults must arrive, whatever the caller has blocked.
class FaultHandlers {
  public:
    FaultHandlers() {
        sigset_t held;
        sigfillset(&held);
        for (const int signal : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGABRT}) {
            sigdelset(&held, signal);
        }
        pthread_sigmask(SIG_SETMASK, &held, &mask_);
        struct sigaction action = {};
        action.sa_handler = vlliSignalHandler;
        for (size_t i = 0; i < kFaultCount; ++i) {
            sigaction(kFaults[i], &action, &actions_[i]);
        }
    }
    ~FaultHandlers() {
        for (size_t i = 0; i < kFaultCount; ++i) {
            sigaction(kFaults[i], &actions_[i], nullptr);
        }
        pthread_sigmask(SIG_SETMASK, &mask_, nullptr);
    }
    FaultHandlers(const FaultHandlers &) = delete;
    FaultHandlers &operator=(const FaultHandlers &) = delete;

  private:
    sigset_t mask_;
    struct sigaction actions_[kFaultCount];
};

// The range is any: the sanitizers must not judge it.
__attribute__((noinline, no_sanitize("address", "thread", "undefined"))) void touch(volatile uint8_t *bytes,
                                                                                    SIZE_T length,
                                                                                    bool write) {
    for (SIZE_T i = 0; i < length && __atomic_load_n(&signal_raised, __ATOMIC_RELAXED) == 0; ++i) {
        const uint8_t byte = bytes[i];
        if (write) {
            bytes[i] = byte;
        }
    }
}

// Nothing that a jump would skip or spoil lives in this frame.
__attribute__((noinline)) void touchUntilFault(volatile uint8_t *bytes, SIZE_T length, bool write) {
    if (sigsetjmp(probe_exit, 0) == 0) {
        __atomic_store_n(&probing, 1, __ATOMIC_RELEASE);
        touch(bytes, length, write);
    }
    __atomic_store_n(&probing, 0, __ATOMIC_RELEASE);
}

BOOL probe(volatile uint8_t *bytes, SIZE_T length, bool write) {
    if (length == 0) {
        return FALSE;
    }
    const KeepErrno keep_errno;
    const NoCancel no_cancel;
    const MutexLock lock(&validation_mutex);
    {
        const FaultHandlers handlers;
        prober = pthread_self();
        __atomic_store_n(&signal_raised, 0, __ATOMIC_RELAXED);
        touchUntilFault(bytes, length, write);
    }
    return __atomic_exchange_n(&signal_raised, 0, __ATOMIC_RELAXED) != 0;
}

}  // namespace

const ForkHandlers kProbeForkHandlers = {lockForFork, unlockAfterFork, unlockAfterFork};

BOOL vllIsBadReadPtr(LPCVOID address, SIZE_T length) {
    return probe(static_cast<uint8_t *>(const_cast<void *>(address)), length, false);
}

BOOL vllIsBadWritePtr(LPVOID address, SIZE_T length) {
    return probe(static_cast<uint8_t *>(address), length, true);
}
