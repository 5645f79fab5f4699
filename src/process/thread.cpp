// Threads. A thread's state has two handles at first: the caller's, and the thread's own, which the thread closes
// when it ends. The state is freed with the last handle, so the caller may close its handle before or after that.
//
// Every thread ends in vlliThreadCleanup(), whether it returns, exits or is cancelled. There it first marks its state as
// ended (`handle` becomes 0), under thread_mutex. vllTerminateThread() reads the mark and cancels under the same lock, so
// that it never uses the identifier of a thread that no longer exists.

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

// The state of the calling thread, or null in a thread that the library has not started.
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
    const pthread_attr_t *get() const { return &attributes_; }

    // Sets the stack's size; 0 keeps the default. False with errno and a log line.
    bool setStackSize(size_t size) {
        const int error = size != 0 ? pthread_attr_setstacksize(&attributes_, size) : 0;
        if (error != 0) {
            vlliLogError("VLLI: CreateThread: pthread_attr_setstacksize() = %d\n", error);
        }
        return vlliSucceeded(error);
    }

  private:
    pthread_attr_t attributes_;
};

// Waits for the resume semaphore and runs the start routine. Cancellation is disabled after it, because the routine may
// have left it asynchronous: the thread must not be cancelled while it holds a lock, nor in the cleanup that follows.
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

// The end of every thread: its state is marked, then its handles are signalled, then its own handle is closed.
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

// Makes the thread's own handle, with its completion event and resume semaphore: 0 with errno when that is not possible.
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

// Cancels a live thread: 0, or the error number.
int cancelThread(ThreadData *thread, uint32_t exit_code) {
    MutexLock lock(&thread_mutex);
    if (thread->handle == 0) {
        return ESRCH;
    }
    const pthread_t id = thread->threadId;
    thread->exitCode = exit_code;
    if (pthread_equal(id, pthread_self())) {
        // The lock is released first, because the call may not return. The thread cannot end meanwhile: it is this one.
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

const ForkHandlers kThreadForkHandlers = {nullptr, nullptr, resetAfterFork};

HANDLE vllCreateThread(DWORD dwStackSize, LPTHREAD_START_ROUTINE lpStartAddress, LPVOID lpParameter,
                       uintptr_t *lpThreadId, DWORD dwCreationFlags) {
    if (lpStartAddress == nullptr) {
        return Fail(EINVAL);
    }
    pthread_once(&thread_data_once, thread_data_init);
    ThreadAttributes attributes;
    if (!attributes.setStackSize(dwStackSize)) {
        return 0;
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

    // The semaphore is posted before the thread exists, so that its wait returns at once and no signal can interrupt it.
    if (dwCreationFlags == 0 && sem_post(&thread->resumeSem) == -1) {
        return 0;
    }
    if (!vlliSucceeded(pthread_create(&thread->threadId, attributes.get(), vlliThreadWrapper, thread))) {
        return 0;
    }
    own.release();  // the thread closes it
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
