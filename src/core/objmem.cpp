// The handle table. objMemMutex guards every count, link and list head, and is held for a few stores.
//
// The layout of the records is fixed. What it has no field for stands in a second array, record_states: the type that
// a record was issued as, and whether the caller may still close its handle. The reference count alone cannot
// distinguish a caller's second close from the end of an operation that still uses the record.

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
    bool closeable;          // the handle is the caller's, who has not closed it yet
};

RecordState record_states[kObjectCount];

constexpr timespec kPinPause = {0, 50000};

// Waits until no thread holds the pin, and keeps all threads from taking it again. Its holder drops it after a few
// instructions unless it has lost the processor, perhaps to this thread: so this thread sleeps between its attempts.
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

// The mutex names a thread of the parent as its owner, so the unlock is refused; ThreadSanitizer needs to see it. The
// threads that held pins do not exist in the child.
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

// Logs a handle whose type code or index does not exist, and sets EINVAL.
void refuseInvalid(const char *operation, HANDLE handle) {
    vlliLogError("VLLI: %s( 0x%X ): Invalid handle value! \n", operation, handle);
    errno = EINVAL;
}

// The type is also read without the lock, by vlliIssuedType().
void setState(uint32_t index, const ObjectType *type, bool closeable) {
    __atomic_store_n(&record_states[index].type, type, __ATOMIC_RELAXED);
    record_states[index].closeable = closeable;
}

// Takes an object record off the free list. Needs the lock.
uint32_t issueObject(uint32_t type) {
    const uint32_t index = vlliTakeFree(objects, &firstFreeObject, &lastFreeObject);
    setState(index, vlliFindObjectType(type), true);
    __atomic_store_n(&record_pins[index].handle, type | index, __ATOMIC_RELEASE);
    return index;
}

// Destroys an object whose last reference is gone. No other thread can reach the record any more.
void destroyObject(uint32_t index) {
    const KeepErrno keep_errno;
    retirePin(&record_pins[index]);
    record_states[index].type->close(&objects[index]);
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
    vlliChainFree(objects, lastFreeObject);
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
    setState(index, nullptr, false);
    vlliReturnFree(objects, &firstFreeObject, &lastFreeObject, index);
    return TRUE;
}

ObjectRecord *vlliOpenObject(HANDLE handle) {
    if (!isTableHandle(handle)) {
        refuseInvalid("OpenObject", handle);
        vlliPrintBacktrace();
        return nullptr;
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
            // None of these references is the last one: each record had one before.
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
        refuseInvalid("CloseObject", handle);
        return FALSE;
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
        refuseInvalid("CloseObject", handle);
        return FALSE;
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
    return index < kObjectCount ? __atomic_load_n(&record_states[index].type, __ATOMIC_RELAXED) : nullptr;
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
