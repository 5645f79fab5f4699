// The handle table. Records live in fixed arrays; objMemMutex guards every count, link and list head, and
// is held for a few stores. A record that somebody holds a reference on is used without the lock.
//
// Beside the records stands what their fixed layout has no room for: the type that a record was issued as, and
// whether its handle is still the caller's to close. The count alone cannot tell a caller's second close from
// the end of an operation that still uses the record.

#include "core/objmem.h"

#include <sys/resource.h>
#include <ctime>

#include "base/util.h"
#include "core/objmem_types.h"

pthread_mutex_t objMemMutex = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;

ObjectRecord objects[kObjectCount];
ObjmemRecord objmem[kObjmemCount];
uint32_t firstFreeObject = 0;
uint32_t lastFreeObject = kObjectCount - 1;
uint32_t firstFreeObjmem = 0;
uint32_t lastFreeObjmem = kObjmemCount - 1;
HANDLE mmapHashTable[kMmapBuckets];
Gate gates[kObjectCount];
int32_t bInitialized = 0;

namespace {

struct Issue {
    uint32_t type;   // 0 while the record is on the free list
    bool closeable;  // the caller has not closed the handle yet, and may
};

Issue issues[kObjectCount];

constexpr timespec kGatePause = {0, 50000};

// Lets nobody in any more. Whoever is inside leaves after a few instructions, unless it has lost the processor,
// perhaps to this thread: so this one sleeps meanwhile.
void closeGate(Gate *gate) {
    while (__atomic_exchange_n(&gate->busy, 1, __ATOMIC_ACQUIRE) != 0) {
        const NoCancel no_cancel;
        nanosleep(&kGatePause, nullptr);
    }
    __atomic_store_n(&gate->handle, 0, __ATOMIC_RELAXED);
    __atomic_store_n(&gate->busy, 0, __ATOMIC_RELEASE);
}

void lockForFork() {
    vlliLockMemoryMutex();
}

void unlockAfterFork() {
    pthread_mutex_unlock(&objMemMutex);
}

// The child's thread is not the one that the mutex knows as its owner: the unlock is refused, and only tells
// ThreadSanitizer.
void resetAfterFork() {
    pthread_mutex_unlock(&objMemMutex);
    objMemMutex = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
    for (Gate &gate : gates) {
        gate.busy = 0;  // whoever was inside is not here
    }
}

template <typename Record>
void chainRecords(Record *records, uint32_t last) {
    for (uint32_t i = 0; i < last; ++i) {
        records[i].next = i + 1;
    }
    records[last].next = kNoNext;
}

template <typename Record>
uint32_t popFree(Record *records, uint32_t *first, uint32_t *last) {
    const uint32_t index = *first;
    *first = records[index].next;
    if (*first == kNoNext) {
        *last = kNoNext;
    }
    records[index] = Record{};
    records[index].refCount = 1;
    return index;
}

template <typename Record>
void appendFree(Record *records, uint32_t *first, uint32_t *last, uint32_t index) {
    records[index].next = kNoNext;
    if (*last == kNoNext) {
        *first = index;
    } else {
        records[*last].next = index;
    }
    *last = index;
}

bool isTableHandle(HANDLE handle) {
    return (handle & kIndexMask) < kObjectCount && vlliFindObjectType(vlliGetObjectType(handle)) != nullptr;
}

// Takes an object record off the free list. Under the lock.
uint32_t issueObject(uint32_t type) {
    const uint32_t index = popFree(objects, &firstFreeObject, &lastFreeObject);
    issues[index] = {type, true};
    __atomic_store_n(&gates[index].handle, type | index, __ATOMIC_RELEASE);
    return index;
}

// The last reference is gone: nobody but the caller can reach the record.
void destroyObject(uint32_t index) {
    const KeepErrno keep_errno;
    closeGate(&gates[index]);
    const ObjectType *type = vlliFindObjectType(issues[index].type);
    if (type != nullptr && type->close != nullptr) {
        type->close(&objects[index]);
    }
    vlliFreeObject(index);
}

}  // namespace

int vlliLockMemoryMutex() {
    int error = pthread_mutex_lock(&objMemMutex);
    if (error == EOWNERDEAD) {
        error = pthread_mutex_consistent(&objMemMutex);
    }
    if (error != 0) {
        errno = error;
    }
    return error;
}

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
    for (ObjmemRecord &record : objmem) {
        record = {};
    }
    chainRecords(objects, lastFreeObject);
    chainRecords(objmem, lastFreeObjmem);
    for (HANDLE &bucket : mmapHashTable) {
        bucket = 0;
    }
    pthread_atfork(lockForFork, unlockAfterFork, resetAfterFork);
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
        errno = ENOMEM;
        return 0;
    }
    return type | issueObject(type);
}

HANDLE vlliAllochMemObject(uint32_t type) {
    const TableLock lock;
    if (!lock.held()) {
        return 0;
    }
    if (firstFreeObject == kNoNext || firstFreeObjmem == kNoNext || bInitialized == 0) {
        vlliLogError("VLLI: AllocMemObject() error = ENOMEM\n");
        errno = ENOMEM;
        return 0;
    }
    const uint32_t index = issueObject(type);
    objects[index].mem = &objmem[popFree(objmem, &firstFreeObjmem, &lastFreeObjmem)];
    return type | index;
}

HANDLE vlliCreateObject(uint32_t type) {
    const ObjectType *row = vlliFindObjectType(type);
    if (row == nullptr) {
        errno = EINVAL;
        return 0;
    }
    return row->hasObjmem ? vlliAllochMemObject(type) : vlliAllocObject(type);
}

BOOL vlliFreeObject(uint32_t index) {
    if (index >= kObjectCount) {
        errno = EBUSY;
        return FALSE;
    }
    const TableLock lock;
    if (!lock.held()) {
        return FALSE;
    }
    if (objects[index].refCount != 0 || issues[index].type == 0) {
        errno = EBUSY;
        return FALSE;
    }
    issues[index] = {0, false};
    appendFree(objects, &firstFreeObject, &lastFreeObject, index);
    return TRUE;
}

ObjectRecord *vlliOpenObject(HANDLE handle) {
    if (!isTableHandle(handle)) {
        vlliLogError("VLLI: OpenObject( 0x%X ): Invalid handle value! \n", handle);
        vlliPrintBacktrace();
        errno = EINVAL;
        return nullptr;
    }
    const TableLock lock;
    if (!lock.held()) {
        return nullptr;
    }
    ObjectRecord *record = vlliGetObjectAddress(handle);
    if (record->refCount == 0) {
        vlliLogError("VLLI: OpenObject( 0x%X ): Unused handle! \n", handle);
        errno = EINVAL;
        return nullptr;
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
        if (index >= kObjectCount || objects[index].refCount == 0 ||
            issues[index].type != vlliGetObjectType(handles[i])) {
            // An object cannot come to its last reference here: each had one before ours.
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
        errno = EINVAL;
        return FALSE;
    }
    const uint32_t index = handle & kIndexMask;
    TableLock lock;
    if (!lock.held()) {
        return FALSE;
    }
    if (objects[index].refCount == 0) {
        errno = EINVAL;
        return FALSE;
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

void vlliKeepHandle(HANDLE handle) {
    const TableLock lock;
    issues[handle & kIndexMask].closeable = false;
}

bool vlliIsIssuedType(HANDLE handle) {
    const uint32_t index = handle & kIndexMask;
    return index < kObjectCount && issues[index].type == vlliGetObjectType(handle);
}

void ObjectRef::open(HANDLE handle) {
    handle_ = handle;
    record_ = vlliOpenObject(handle);
    if (record_ != nullptr && !vlliIsIssuedType(handle)) {
        close();
        errno = EINVAL;
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
        errno = EINVAL;
        return FALSE;
    }
    const TableLock lock;
    if (!lock.held() || record->refCount == 0) {
        return FALSE;
    }
    if (--record->refCount != 0) {
        return TRUE;
    }
    const uintptr_t offset = reinterpret_cast<uintptr_t>(record) - reinterpret_cast<uintptr_t>(objmem);
    const uintptr_t index = offset / sizeof(ObjmemRecord);
    if (offset % sizeof(ObjmemRecord) != 0 || index >= kObjmemCount) {
        return FALSE;
    }
    appendFree(objmem, &firstFreeObjmem, &lastFreeObjmem, static_cast<uint32_t>(index));
    return TRUE;
}

namespace {

// The caller gives up a handle: at most once, whatever operations still hold its record.
BOOL giveUpHandle(HANDLE handle) {
    const uint32_t index = handle & kIndexMask;
    if (isTableHandle(handle)) {
        TableLock lock;
        if (!lock.held()) {
            return FALSE;
        }
        if (objects[index].refCount == 0 || !issues[index].closeable || !vlliIsIssuedType(handle)) {
            errno = EINVAL;
            return FALSE;
        }
        issues[index].closeable = false;
    }
    return vlliCloseObject(handle);
}

}  // namespace

BOOL vllCloseHandle(HANDLE handle) {
    if (vlliGetObjectType(handle) != 0) {
        return giveUpHandle(handle);
    }
    return handle == 0 || vlliCloseFd(static_cast<int>(handle)) == 0;
}

HANDLE vllDuplicateHandle(HANDLE handle) {
    const ObjectRef source(handle);
    if (!source) {
        return 0;
    }
    const uint32_t type = vlliGetObjectType(handle);
    NewHandle duplicate(vlliAllocObject(type));
    if (!duplicate) {
        return 0;
    }
    duplicate.record()->fd = -1;
    const ObjectType *row = vlliFindObjectType(type);
    if (row->duplicate == nullptr) {
        errno = EINVAL;
        return 0;
    }
    return row->duplicate(duplicate.record(), source.get()) ? duplicate.release() : 0;
}
