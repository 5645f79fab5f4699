// Memory-object records: the state that the handles of a thread, an unnamed mutex or an unnamed semaphore share.
//
// When the last handle of a mutex is closed while another thread of the process owns it, the mutex is still linked
// into the owner's robust list. Its record then stays out of the pool until the owner has released the mutex or has
// ended. Every allocation and every close of a mutex checks for such records.

#include "core/objmem_pool.h"

#include "base/failure.h"
#include "base/log.h"
#include "base/robust_mutex.h"
#include "base/util.h"
#include "core/free_list.h"

ObjmemRecord objmem[kObjmemCount];
uint32_t firstFreeObjmem = 0;
uint32_t lastFreeObjmem = kObjmemCount - 1;

namespace {

// The records of closed mutexes that another thread owned, by index, and how many there are. They are accessed with
// atomic operations only, because a lock could be left behind by fork().
bool owned_when_closed[kObjmemCount];
int32_t owned_when_closed_count;

// Drops a reference unless it is the last one. Needs objMemMutex.
bool dropFurtherReference(ObjmemRecord *record) {
    if (record->refCount <= 1) {
        return false;
    }
    --record->refCount;
    return true;
}

}  // namespace

void vlliInitObjmemPool() {
    for (ObjmemRecord &record : objmem) {
        record = {};
    }
    vlliChainFree(objmem, lastFreeObjmem);
}

bool vlliIsObjmemPoolEmpty() {
    return firstFreeObjmem == kNoNext;
}

ObjmemRecord *vlliTakeObjmem() {
    return &objmem[vlliTakeFree(objmem, &firstFreeObjmem, &lastFreeObjmem)];
}

void vlliReclaimObjmem() {
    if (__atomic_load_n(&owned_when_closed_count, __ATOMIC_RELAXED) == 0) {
        return;
    }
    for (uint32_t i = 0; i < kObjmemCount; ++i) {
        if (!__atomic_exchange_n(&owned_when_closed[i], false, __ATOMIC_ACQ_REL)) {
            continue;
        }
        vlliReleaseOwnedMutex(&objmem[i].mutex);
        if (vlliIsOwnedByLiveThread(&objmem[i].mutex)) {
            __atomic_store_n(&owned_when_closed[i], true, __ATOMIC_RELEASE);
        } else {
            __atomic_sub_fetch(&owned_when_closed_count, 1, __ATOMIC_RELAXED);
            vlliDetachObjmem(&objmem[i]);
        }
    }
}

BOOL vlliAttachObjmem(ObjmemRecord *record) {
    const TableLock lock;
    if (!lock.held() || record->refCount == 0) {
        return FALSE;
    }
    ++record->refCount;
    return TRUE;
}

BOOL vlliDetachObjmem(ObjmemRecord *record) {
    if (record == nullptr) {
        vlliLogError("VLLI: DetachObjmem( mem = NUILL )\n");
        vlliPrintBacktrace();
        return Fail(EINVAL);
    }
    const TableLock lock;
    if (!lock.held() || record->refCount == 0) {
        return FALSE;
    }
    if (dropFurtherReference(record)) {
        return TRUE;
    }
    const uintptr_t offset = reinterpret_cast<uintptr_t>(record) - reinterpret_cast<uintptr_t>(objmem);
    const uintptr_t index = offset / sizeof(ObjmemRecord);
    if (offset % sizeof(ObjmemRecord) != 0 || index >= kObjmemCount) {
        return FALSE;
    }
    record->refCount = 0;
    vlliReturnFree(objmem, &firstFreeObjmem, &lastFreeObjmem, static_cast<uint32_t>(index));
    return TRUE;
}

BOOL vlliDetachMutex(ObjmemRecord *record) {
    vlliReclaimObjmem();
    {
        const TableLock lock;
        if (lock.held() && dropFurtherReference(record)) {
            return TRUE;
        }
    }
    // The reference is the last one, so no other thread can reach the record any more.
    vlliReleaseOwnedMutex(&record->mutex);
    if (vlliIsOwnedByLiveThread(&record->mutex)) {
        __atomic_add_fetch(&owned_when_closed_count, 1, __ATOMIC_RELAXED);
        __atomic_store_n(&owned_when_closed[record - objmem], true, __ATOMIC_RELEASE);
        return TRUE;
    }
    return vlliDetachObjmem(record);
}
