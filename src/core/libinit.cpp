// Start-up and shutdown of the library. Shutdown releases nothing.

#include "base/failure.h"
#include "core/objmem.h"
#include "vwincompat/library.h"

namespace {

int32_t InitDone = 0;

}  // namespace

void vllvwincompatMain() {
    if (__atomic_load_n(&InitDone, __ATOMIC_ACQUIRE) == 1) {
        return;
    }
    const KeepErrno keep_errno;
    vlliInitObjMem();
    __atomic_store_n(&InitDone, 1, __ATOMIC_RELEASE);
}

void vllvwincompatExit() {
    __atomic_store_n(&InitDone, 0, __ATOMIC_RELEASE);
}
