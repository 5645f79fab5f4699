// The handle table. Records live in fixed arrays; objMemMutex guards every count, link and list head, and
// is held for a few stores.
//
// Beside the records stands what their fixed layout has no field for: the type that a record was issued as, and
// whether its handle is still the caller's to close. The reference count alone cannot distinguish a caller's second
// close from the end of an operation that still uses the record.

#include "core/objmem.h"

#include <sys/resource.h>
#include <ctime>

#include "base/failure.h"
#include "base/guards.h"
#include "base/log.h"
#include "base/util.h"
#include "core/free_list.h"
#include "core/objmem_pool.h"
#include "core/objmem_types.h"
#include "core/ref.h"

ObjectRecord objects[kObjectCount];
uint32_t firstFreeObject = 0;
uint32_t lastFreeObject = kObjectCount - 1;
HANDLE mmapHashTable[kMmapBuckets];
RecordPin record_pins[kObjectCount];
int32_t bInitialized = 0;

namespace {

struct RecordState {
    const ObjectType *type;  // null while the record is on the free list
    bool closeable;          // the caller has not closed the handle yet, and may
};

RecordState record_states[kObjectCount];

constexpr timespec kPinPause = {0, 50000};

// Keeps every further thread from pinning the record. A thread that holds the pin drops it after a few instructions,
// unless it has lost the processor, perhaps to this thread, which therefore sleeps meanwhile.
void retirePin(RecordPin *pin) {
    while (__atomic_exchange_n(&pin->busy, 1, __ATOMIC_ACQUIRE) != 0) {
        const NoCancel no_cancel;
        nanosleep(&kPinPause, nullptr);
    }
    __atomic_store_n(&pin->handle, 0, __ATOMIC_RELAXED);
    __atomic_store_n(&pin->busy, 0, __ATOMIC_RELEASE);
}

void lockForFork() {
    vlliLockMemoryMutex();
}

void unlockAfterFork() {
    pthread_mutex_unlock(&objMemMutex);
}

// In the child the mutex names a thread of the parent as its owner: the unlock is refused, and only informs
// ThreadSanitizer. The threads that held pins do not exist in the child.
void resetAfterFork() {
    pthread_mutex_unlock(&objMemMutex);
    objMemMutex = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
    for (RecordPin &pin : record_pins) {
        pin.busy = 0;
    }
}

bool isTableHandle(HANDLE handle) {
    return (handle & kIndexMask) < kObjectCount && vlliFindObjectType(vlliGetObjectType(handle)) != nullptr;
}

// Takes an object record off the free list. Needs the lock.
uint32_t issueObject(uint32_t type) {
    const uint32_t index = popFree(objects, &firstFreeObject, &lastFreeObject);
    record_states[index] = {vlliFindObjectType(type), true};
    __atomic_store_n(&record_pins[index].handle, type | index, __ATOMIC_RELEASE);
    return index;
}

// Destroys an object whose last reference is gone, so that nobody but the caller can reach the record.
void destroyObject(uint32_t index) {
    const KeepErrno keep_errno;
    retirePin(&record_pins[index]);
    const ObjectType *type = record_states[index].type;
    if (type != nullptr && type->close != nullptr) {
        type->close(&objects[index]);
    }
    vlliFreeObject(index);
}

}  // namespace

const ForkHandlers kHandleTableForkHandlers = {lockForFork, unlockAfterFork, resetAfterFork};

int vlliInitObjMem() {
    const TableLock lock;
    if (!lock.held()) {
        return -1;
    }
    if (bInitialized != 0) {
        return 0;
    }
    const rlimit limit = {256, 256};
    setrlimit(RLIMIT_NOFILE, &limit);
    for (ObjectRecord &record : objects) {
        record = {};
    }
    chainRecords(objects, lastFreeObject);
    vlliInitObjmemPool();
    for (HANDLE &bucket : mmapHashTable) {
        bucket = 0;
    }
    bInitialized = 1;
    return 0;
}

HANDLE vlliAllocObject(uint32_t type) {
    const TableLock lock;
    if (!lock.held()) {
        return 0;
    }
    if (firstFreeObject == kNoNext || bInitialized == 0) {
        vlliLogError("VLLI: AllocObject() error = ENOMEM\n");
        return Fail(ENOMEM);
    }
    return type | issueObject(type);
}

HANDLE vlliAllochMemObject(uint32_t type) {
    vlliReclaimObjmem();
    const TableLock lock;
    if (!lock.held()) {
        return 0;
    }
    if (firstFreeObject == kNoNext || vlliIsObjmemPoolEmpty() || bInitialized == 0) {
        vlliLogError("VLLI: AllocMemObject() error = ENOMEM\n");
        return Fail(ENOMEM);
    }
    const uint32_t index = issueObject(type);
    objects[index].mem = vlliTakeObjmem();
    return type | index;
}

HANDLE vlliCreateObject(uint32_t type) {
    const ObjectType *row = vlliFindObjectType(type);
    if (row == nullptr) {
        return Fail(EINVAL);
    }
    return row->has_objmem ? vlliAllochMemObject(type) : vlliAllocObject(type);
}

BOOL vlliFreeObject(uint32_t index) {
    if (index >= kObjectCount) {
        return Fail(EBUSY);
    }
    const TableLock lock;
    if (!lock.held()) {
        return FALSE;
    }
    if (objects[index].refCount != 0 || record_states[index].type == nullptr) {
        return Fail(EBUSY);
    }
    record_states[index] = {nullptr, false};
    appendFree(objects, &firstFreeObject, &lastFreeObject, index);
    return TRUE;
}

ObjectRecord *vlliOpenObject(HANDLE handle) {
    if (!isTableHandle(handle)) {
        vlliLogError("VLLI: OpenObject( 0x%X ): Invalid handle value! \n", handle);
        vlliPrintBacktrace();
        return Fail(EINVAL);
    }
    const TableLock lock;
    if (!lock.held()) {
        return nullptr;
    }
    ObjectRecord *record = vlliGetObjectAddress(handle);
    if (record->refCount == 0) {
        vlliLogError("VLLI: OpenObject( 0x%X ): Unused handle! \n", handle);
        return Fail(EINVAL);
    }
    ++record->refCount;
    return record;
}

bool vlliOpenObjects(int32_t count, const HANDLE *handles, ObjectRecord **records) {
    const KeepErrno keep_errno;
    const TableLock lock;
    if (!lock.held()) {
        return false;
    }
    for (int32_t i = 0; i < count; ++i) {
        const uint32_t index = handles[i] & kIndexMask;
        if (index >= kObjectCount || objects[index].refCount == 0 || !vlliIsIssuedType(handles[i])) {
            // None of these is the last reference: each object had one before ours.
            while (i-- > 0) {
                --records[i]->refCount;
            }
            return false;
        }
        records[i] = &objects[index];
        ++records[i]->refCount;
    }
    return true;
}

BOOL vlliCloseObject(HANDLE handle) {
    if (!isTableHandle(handle)) {
        vlliLogError("VLLI: CloseObject( 0x%X ): Invalid handle value! \n", handle);
        return Fail(EINVAL);
    }
    const uint32_t index = handle & kIndexMask;
    TableLock lock;
    if (!lock.held()) {
        return FALSE;
    }
    if (objects[index].refCount == 0) {
        return Fail(EINVAL);
    }
    const int32_t left = --objects[index].refCount;
    lock.unlock();
    if (left == 0) {
        destroyObject(index);
    }
    return TRUE;
}

void vlliCloseEvents(int32_t count, const HANDLE *handles) {
    const KeepErrno keep_errno;
    uint32_t last[kObjectCount];
    uint32_t last_count = 0;
    TableLock lock;
    if (!lock.held()) {
        return;
    }
    for (int32_t i = 0; i < count; ++i) {
        const uint32_t index = handles[i] & kIndexMask;
        if (handles[i] != 0 && index < kObjectCount && objects[index].refCount != 0 &&
            --objects[index].refCount == 0) {
            last[last_count++] = index;
        }
    }
    lock.unlock();
    while (last_count > 0) {
        destroyObject(last[--last_count]);
    }
}

void vlliWithholdHandle(HANDLE handle) {
    const TableLock lock;
    record_states[handle & kIndexMask].closeable = false;
}

BOOL vlliSurrenderHandle(HANDLE handle) {
    if (!isTableHandle(handle)) {
        return TRUE;  // the close refuses it, and logs it
    }
    const uint32_t index = handle & kIndexMask;
    const TableLock lock;
    if (!lock.held()) {
        return FALSE;
    }
    if (objects[index].refCount == 0 || !record_states[index].closeable || !vlliIsIssuedType(handle)) {
        return Fail(EINVAL);
    }
    record_states[index].closeable = false;
    return TRUE;
}

const ObjectType *vlliIssuedType(HANDLE handle) {
    const uint32_t index = handle & kIndexMask;
    return index < kObjectCount ? record_states[index].type : nullptr;
}

bool vlliIsIssuedType(HANDLE handle) {
    const ObjectType *type = vlliIssuedType(handle);
    return type != nullptr && type->code == vlliGetObjectType(handle);
}

void ObjectRef::open(HANDLE handle) {
    handle_ = handle;
    record_ = vlliOpenObject(handle);
    if (record_ != nullptr && !vlliIsIssuedType(handle)) {
        close();
        errno = EINVAL;
    }
}

void ObjectRef::openSilently(HANDLE handle) {
    handle_ = handle;
    vlliOpenObjects(1, &handle, &record_);
}
