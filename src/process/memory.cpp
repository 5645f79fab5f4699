// Memory: its amount, heap blocks, and counters that all processes may change at once.

#include "vwincompat/memory.h"

#include <unistd.h>
#include <cstdlib>

#include "base/failure.h"
#include "base/guards.h"
#include "vwincompat/handle.h"
#include "vwincompat/mutex.h"
#include "vwincompat/wait.h"

namespace {

constexpr const char *kInterlockName = "InterlockingMutex";

// The size of as many pages as sysconf(3) reports, in bytes.
SIZE_T pageBytes(int name) {
    return static_cast<SIZE_T>(sysconf(name)) * static_cast<SIZE_T>(sysconf(_SC_PAGESIZE));
}

// Holds the named mutex of all processes for a scope. When it cannot be opened the counter is changed without it, since
// the operations have no way to fail.
class Interlock {
  public:
    Interlock() : mutex_(vllCreateMutex(0, kInterlockName)) {
        if (mutex_ != 0) {
            vllWaitForSingleObject(mutex_, INFINITE);
        }
    }
    ~Interlock() {
        if (mutex_ != 0) {
            vllReleaseMutex(mutex_);
            vllCloseHandle(mutex_);
        }
    }
    Interlock(const Interlock &) = delete;
    Interlock &operator=(const Interlock &) = delete;

  private:
    HANDLE mutex_;
};

LONG changeCounter(volatile LONG *counter, LONG change) {
    const KeepErrno keep_errno;
    const NoCancel no_cancel;
    const Interlock interlock;
    return __atomic_add_fetch(counter, change, __ATOMIC_SEQ_CST);
}

}  // namespace

void vllGetMemoryStatus(MEMORYSTATUS *lpBuffer) {
    if (lpBuffer != nullptr) {
        lpBuffer->dwTotalPhys = pageBytes(_SC_PHYS_PAGES);
        lpBuffer->dwAvailPhys = pageBytes(_SC_AVPHYS_PAGES);
    }
}

LPVOID vllAllocateMemory(SIZE_T size, BOOL bZero) {
    return bZero != 0 ? calloc(size, 1) : malloc(size);
}

LPVOID vllReAllocateMemory(LPVOID memory, SIZE_T size) {
    return realloc(memory, size);
}

void vllFreeMemory(LPVOID memory) {
    free(memory);
}

LONG vllInterlockedIncrement(volatile LONG *lpAddend) {
    return changeCounter(lpAddend, 1);
}

LONG vllInterlockedDecrement(volatile LONG *lpAddend) {
    return changeCounter(lpAddend, -1);
}
