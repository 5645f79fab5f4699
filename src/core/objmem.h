// The handle table: object records, memory-object records, their reference counts, and the hash of mapped views.
//
// A thread that holds a reference on a record uses the record without the lock. Operations take and drop references
// with the classes of ref.h.
#pragma once

#include <pthread.h>
#include <semaphore.h>
#include <cstddef>
#include <cstdint>

#include "base/fork_handlers.h"
#include "vwincompat/handle.h"

struct ObjectType;

constexpr uint32_t kObjectCount = 128;
constexpr uint32_t kObjmemCount = 32;
constexpr uint32_t kMmapBuckets = 32;
constexpr uint32_t kIndexMask = 0xFFFF;
constexpr uint32_t kNoNext = 0xFFFFFFFF;

// Object record flags.
constexpr uint32_t OBJF_AUTO_RESET = 1;   // a wait that reports the object reads its counter
constexpr uint32_t OBJF_FILE_BACKED = 2;  // a file mapping of the caller's file

// The state that all handles of one thread, unnamed mutex or unnamed semaphore share.
struct ObjmemRecord {
    union {
        pthread_mutex_t mutex;
        sem_t semaphore;
        void *words[9];  // a thread's ThreadData
    };
    int32_t refCount;  // object records that point here; 0 while free
    uint32_t next;     // while free
};

struct ObjectRecord {
    int32_t fd;
    uint32_t flags;
    union {
        int32_t efd;        // event: its epoll set of sockets
        ObjmemRecord *mem;  // thread, mutex, semaphore
        void *addr;         // named mutex, named semaphore, mapped view
        // Threads, mutexes and semaphores, also named ones: the shared state, with which a memory-object record
        // begins.
        void *payload;
    };
    SIZE_T size;
    int32_t refCount;  // 0 while free
    uint32_t next;     // while free: the next free index; while a mapped view: the next handle in its bucket
};

static_assert(sizeof(pthread_t) == sizeof(uintptr_t));
#if !defined(__LP64__)
static_assert(sizeof(ObjmemRecord) == 44 && offsetof(ObjmemRecord, refCount) == 36);
static_assert(sizeof(ObjectRecord) == 24 && offsetof(ObjectRecord, efd) == 8 &&
              offsetof(ObjectRecord, size) == 12 && offsetof(ObjectRecord, refCount) == 16 &&
              offsetof(ObjectRecord, next) == 20);
static_assert(sizeof(pthread_mutex_t) == 24 && sizeof(sem_t) == 16);
#endif
static_assert(offsetof(ObjmemRecord, words) == 0 && offsetof(ObjmemRecord, refCount) == 9 * sizeof(void *) &&
              offsetof(ObjmemRecord, next) == offsetof(ObjmemRecord, refCount) + 4);
static_assert(offsetof(ObjectRecord, fd) == 0 && offsetof(ObjectRecord, flags) == 4 &&
              offsetof(ObjectRecord, efd) == 8 &&
              offsetof(ObjectRecord, refCount) == offsetof(ObjectRecord, size) + sizeof(SIZE_T) &&
              offsetof(ObjectRecord, next) == offsetof(ObjectRecord, refCount) + 4);

// All of these are guarded by objMemMutex. Tests look at them, too.
extern ObjectRecord objects[kObjectCount];
extern ObjmemRecord objmem[kObjmemCount];
extern uint32_t firstFreeObject, lastFreeObject, firstFreeObjmem, lastFreeObjmem;
extern HANDLE mmapHashTable[kMmapBuckets];
extern int32_t bInitialized;

extern const ForkHandlers kHandleTableForkHandlers;

// The type code in a handle. No check.
constexpr uint32_t vlliGetObjectType(HANDLE handle) {
    return handle & ~kIndexMask;
}

// The record of a handle's index. No check, no lock, no reference.
inline ObjectRecord *vlliGetObjectAddress(HANDLE handle) {
    return &objects[handle & kIndexMask];
}

// Takes objMemMutex: 0, or the error number, which is also stored in errno.
int vlliLockMemoryMutex();

// Holds objMemMutex for a scope. It is the innermost lock: nothing but a few stores, and the log lines of a full
// table and of an unused handle, may happen in the scope.
class TableLock {
  public:
    TableLock() : error_(vlliLockMemoryMutex()) {}
    ~TableLock() { unlock(); }
    TableLock(const TableLock &) = delete;
    TableLock &operator=(const TableLock &) = delete;

    bool held() const { return error_ == 0; }
    int error() const { return error_; }
    void unlock() {
        if (error_ == 0) {
            pthread_mutex_unlock(&objMemMutex);
            error_ = -1;
        }
    }

  private:
    int error_;
};

// Prepares the tables once per process: 0, or -1 when the lock could not be taken.
int vlliInitObjMem();

// A new handle with one reference, or 0 with errno. The record is zeroed, so its descriptor is 0: set it to -1 before
// anything can fail, or closing the record would close standard input.
HANDLE vlliCreateObject(uint32_t type);

// The same for an object record alone, and for one with a memory-object record.
HANDLE vlliAllocObject(uint32_t type);
HANDLE vlliAllochMemObject(uint32_t type);

// Puts a record without references back on the free list: 1, or 0 with EBUSY.
BOOL vlliFreeObject(uint32_t index);

// Takes one reference on a handle's record, or returns null with errno and a log line.
ObjectRecord *vlliOpenObject(HANDLE handle);

// Drops one reference; the last one destroys the object. TRUE, or FALSE with EINVAL.
BOOL vlliCloseObject(HANDLE handle);

// Takes a reference on each of count handles while it holds the lock once: true, or false when one of them cannot be
// opened; then it has taken none. Neither logs nor sets errno: a caller that needs the reason opens them one by one.
bool vlliOpenObjects(int32_t count, const HANDLE *handles, ObjectRecord **records);

// Drops a reference on each handle of the array that is not 0.
void vlliCloseEvents(int32_t count, const HANDLE *handles);

// Marks a handle as the library's own, which vllCloseHandle() refuses.
void vlliWithholdHandle(HANDLE handle);

// Ends the caller's use of a handle: TRUE, once for each handle; the caller then drops the reference that the handle
// stood for. FALSE with EINVAL for a handle that is not open, that has been closed while operations still use its
// record, or that is the library's own.
BOOL vlliSurrenderHandle(HANDLE handle);

// The type that the record of a handle's index was issued as, or null while the record is free.
const ObjectType *vlliIssuedType(HANDLE handle);

// True when the type code in a handle is the type that its record was issued as.
bool vlliIsIssuedType(HANDLE handle);

// A further reference on a memory-object record: 1, or 0 when it is free.
BOOL vlliAttachObjmem(ObjmemRecord *record);

// Drops one; the last one frees the record: 1, or 0 for a null pointer (EINVAL), a free record, or one of no table.
BOOL vlliDetachObjmem(ObjmemRecord *record);

// The same for the record of a mutex. The last reference releases the mutex if the calling thread owns it. If another
// thread of the process owns it, the record is not used again before that thread has released it or ended: reusing
// the memory would corrupt the thread's robust list.
BOOL vlliDetachMutex(ObjmemRecord *record);

// Jenkins's lookup2 hash.
uint32_t vlliHash(const void *key, uint32_t length, uint32_t initial_value);

// Enters the handle of a mapped view, whose record holds the view's address, into the hash: 0, or the error number of
// the lock.
int vlliHashMMap(HANDLE handle);

// Takes the newest view at an address out of the hash: its handle, or 0.
HANDLE vlliUnhashMMapp(const void *address);

// A pin keeps a record from being destroyed for a few instructions, without a reference and without objMemMutex. One
// thread at a time holds it (PinnedRecord, ref.h).
struct RecordPin {
    uint32_t busy;  // 1 while a thread holds the pin
    HANDLE handle;  // the record's handle while it is live, else 0
};

extern RecordPin record_pins[kObjectCount];
