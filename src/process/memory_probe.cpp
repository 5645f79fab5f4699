// Pointer probes. Bytes are read and written while a handler for memory faults is installed; the handler leaves the
// access by a jump, since an access that it returned to would fault again for ever. Only one probe runs at a time, because
// handlers belong to the whole process.
//
// When another thread faults meanwhile, the handler sets signal_raised, which ends the probe, and returns. The other thread
// then faults again and again until the probe has restored the action that the program had installed.

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

uint32_t signal_raised;  // 1 once a fault has happened; atomic
int32_t probing;         // 1 while a byte may be accessed; atomic
pthread_t prober;        // the thread that probes, valid while probing is 1
sigjmp_buf probe_exit;

void vlliSignalHandler(int) {
    __atomic_store_n(&signal_raised, 1, __ATOMIC_RELAXED);
    if (__atomic_load_n(&probing, __ATOMIC_ACQUIRE) != 0 && pthread_equal(prober, pthread_self()) != 0) {
        siglongjmp(probe_exit, 1);
    }
}

// A child of fork(2) must inherit neither the held lock nor the handlers of a probing thread.
void lockForFork() {
    pthread_mutex_lock(&validation_mutex);
}

void unlockAfterFork() {
    pthread_mutex_unlock(&validation_mutex);
}

// Installs the library's handlers and a signal mask for a scope. All signals but faults are blocked, so that no handler of
// the program can start a probe inside this one; the faults are not, even if the caller has blocked them.
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

// The range may be invalid, which the sanitizers must not report.
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

// A function of its own, whose frame has nothing that the jump would skip: no destructor, no changed local variable.
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
