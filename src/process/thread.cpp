// Threads. A thread record has two handles at first: the caller's, and the thread's own, which the thread closes
// when it ends. The record goes with the last handle, so the caller's may be closed earlier or later.
//
// A thread ends in vlliThreadCleanup(), however it got there. It marks its record first (`handle` becomes 0),
// under thread_mutex; whoever cancels it looks at the mark and cancels under the same lock, so it can never name
// a thread that is gone.

#include "process/thread.h"

#include <sys/eventfd.h>
#include <unistd.h>
#include <cstring>

#include "base/blocking.h"
#include "base/counter.h"
#include "base/descriptor.h"
#include "base/failure.h"
#include "base/guards.h"
#include "base/log.h"
#include "core/ref.h"

namespace {

pthread_key_t thread_data_key;
pthread_once_t thread_data_once = PTHREAD_ONCE_INIT;

// Guards `handle` and `exitCode` of all thread records.
pthread_mutex_t thread_mutex = PTHREAD_MUTEX_INITIALIZER;

void thread_data_init() {
    pthread_key_create(&thread_data_key, nullptr);
}

// The calling thread's record, or null in a thread that was not started here.
ThreadData *currentThreadData() {
    pthread_once(&thread_data_once, thread_data_init);
    return static_cast<ThreadData *>(pthread_getspecific(thread_data_key));
}

// Of the parent's threads the child has only the one that forked. The others hold no lock there. They are marked as
// ended, since their identifiers may soon name threads of the child.
void resetAfterFork() {
    thread_mutex = PTHREAD_MUTEX_INITIALIZER;
    const void *own = currentThreadData();
    for (uint32_t i = 0; i < kObjectCount; ++i) {
        const ObjectRecord &record = objects[i];
        if (record.refCount != 0 && vlliIsIssuedType(OBJ_THREAD | i) && record.payload != nullptr &&
            record.payload != own) {
            vlliThreadData(&record)->handle = 0;
        }
    }
}

void setExitCode(ThreadData *thread, uint32_t code) {
    const MutexLock lock(&thread_mutex);
    thread->exitCode = code;
}

class ThreadAttributes {
  public:
    ThreadAttributes() {
        pthread_attr_init(&attributes_);
        pthread_attr_setdetachstate(&attributes_, PTHREAD_CREATE_DETACHED);
    }
    ~ThreadAttributes() { pthread_attr_destroy(&attributes_); }
    ThreadAttributes(const ThreadAttributes &) = delete;
    ThreadAttributes &operator=(const ThreadAttributes &) = delete;
    pthread_attr_t *get() { return &attributes_; }

  private:
    pthread_attr_t attributes_;
};

// Runs the start routine once the thread may; goes on with cancellation off, which the routine may have left
// asynchronous: neither what holds a lock nor the cleanup that follows may be a victim.
void runThread(void *argument) {
    auto *thread = static_cast<ThreadData *>(argument);
    if (vlliBlockInSemWait(&thread->resumeSem) == -1) {
        vlliLogError("VLLI: ThreadWrapper: T%08X, resume wait error %d [%s]\n", thread->handle, errno,
                     strerror(errno));
    } else {
        const uint32_t code = thread->startAddress(thread->parameter);
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        setExitCode(thread, code);
    }
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
}

// However the thread ends: it is marked, then its handles are signalled, then its own handle is closed.
void vlliThreadCleanup(void *argument) {
    auto *thread = static_cast<ThreadData *>(argument);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    pthread_setspecific(thread_data_key, nullptr);
    MutexLock lock(&thread_mutex);
    const HANDLE own = thread->handle;
    __atomic_store_n(&thread->handle, 0, __ATOMIC_RELEASE);
    lock.unlock();
    vlliRaiseCounter(vlliGetObjectAddress(own)->fd);
    vlliCloseObject(own);
}

void *vlliThreadWrapper(void *argument) {
    pthread_once(&thread_data_once, thread_data_init);
    pthread_setspecific(thread_data_key, argument);
    vlliCallWithCleanup(runThread, vlliThreadCleanup, argument);
    return nullptr;
}

// The thread's own handle with its completion event and resume semaphore; 0 with errno when they cannot be made.
HANDLE makeOwnHandle() {
    NewHandle handle(vlliCreateObject(OBJ_THREAD));
    if (!handle) {
        return 0;
    }
    ObjectRecord *record = handle.record();
    record->fd = -1;
    if (sem_init(&vlliThreadData(record)->resumeSem, 0, 0) == -1) {
        return 0;
    }
    record->fd = eventfd(0, 0);
    if (record->fd == -1 || vlliSetNonBlocking(record->fd) == -1) {
        return 0;
    }
    return handle.release();
}

}  // namespace

const ForkHandlers kThreadForkHandlers = {nullptr, nullptr, resetAfterFork};

HANDLE vllCreateThread(DWORD dwStackSize, LPTHREAD_START_ROUTINE lpStartAddress, LPVOID lpParameter,
                       uintptr_t *lpThreadId, DWORD dwCreationFlags) {
    if (lpStartAddress == nullptr) {
        return Fail(EINVAL);
    }
    pthread_once(&thread_data_once, thread_data_init);
    ThreadAttributes attributes;
    if (dwStackSize != 0) {
        const int result = pthread_attr_setstacksize(attributes.get(), dwStackSize);
        if (result != 0) {
            vlliLogError("VLLI: CreateThread: pthread_attr_setstacksize() = %d\n", result);
            return Fail(result);
        }
    }
    NewHandle own(makeOwnHandle());
    if (!own) {
        return 0;
    }
    NewHandle callers(vllDuplicateHandle(own.get()));
    if (!callers) {
        return 0;
    }
    vlliWithholdHandle(own.get());
    ThreadData *thread = vlliThreadData(own.record());
    thread->handle = own.get();
    thread->startAddress = lpStartAddress;
    thread->parameter = lpParameter;

    // Posted before there is a thread: it then never sleeps on its way to the start routine, and no signal can
    // break that sleep.
    if (dwCreationFlags == 0 && sem_post(&thread->resumeSem) == -1) {
        return 0;
    }
    const int result = pthread_create(&thread->threadId, attributes.get(), vlliThreadWrapper, thread);
    if (result != 0) {
        return Fail(result);
    }
    own.release();  // the thread's from here on
    if (lpThreadId != nullptr) {
        *lpThreadId = thread->threadId;
    }
    return callers.release();
}

void vllExitThread(DWORD dwExitCode) {
    ThreadData *thread = currentThreadData();
    if (thread != nullptr) {
        const NoCancel no_cancel;
        setExitCode(thread, dwExitCode);
    }
    pthread_exit(nullptr);
}

uintptr_t vllGetCurrentThreadId() {
    return pthread_self();
}

HANDLE vllGetCurrentThread() {
    const ThreadData *thread = currentThreadData();
    return thread != nullptr ? thread->handle : 0;
}

DWORD vllResumeThread(HANDLE hThread) {
    Ref<OBJ_THREAD> thread(hThread);
    if (!thread) {
        return 0;
    }
    if (thread.state() != nullptr) {
        sem_post(&thread.state()->resumeSem);
    }
    return static_cast<DWORD>(thread.close());
}

namespace {

// Cancels a live thread: 0, or the error number.
int cancelThread(ThreadData *thread, uint32_t exit_code) {
    MutexLock lock(&thread_mutex);
    if (thread->handle == 0) {
        return ESRCH;
    }
    const pthread_t id = thread->threadId;
    thread->exitCode = exit_code;
    if (pthread_equal(id, pthread_self())) {
        // Nobody but the caller can end this thread, and cancelling it may not return.
        lock.unlock();
        return pthread_cancel(id);
    }
    const int result = pthread_cancel(id);
    if (result != 0) {
        thread->exitCode = 0;
    }
    return result;
}

}  // namespace

BOOL vllTerminateThread(HANDLE hThread, DWORD dwExitCode) {
    const Ref<OBJ_THREAD> record(hThread);
    if (!record) {
        return FALSE;
    }
    ThreadData *thread = record.state();
    if (thread == nullptr) {
        vlliLogError("VLL: TerminateThread(T%08X) ERROR: T%08X->pThreadData = NULL !\n", hThread, hThread);
        return Fail(EFAULT);
    }
    if (thread->threadId == 0) {
        vlliLogError("VLL: TerminateThread(T%08X) ERROR: T%08X->threadId = 0!\n", hThread, thread->handle);
        return Fail(EFAULT);
    }
    return vlliSucceeded(cancelThread(thread, dwExitCode));
}

bool vlliThreadRuns(const ObjectRecord *record) {
    const ThreadData *thread = vlliThreadData(record);
    return thread != nullptr && __atomic_load_n(&thread->handle, __ATOMIC_ACQUIRE) != 0;
}

BOOL vlliCloseThread(ObjectRecord *record) {
    Fd fd(record->fd);
    return vlliDetachObjmem(record->mem);
}

BOOL vlliDuplicateThread(ObjectRecord *record, const ObjectRecord *source) {
    record->fd = dup(source->fd);
    if (record->fd == -1) {
        return FALSE;
    }
    record->flags = source->flags;
    record->mem = source->mem;
    return vlliAttachObjmem(record->mem);
}
