// The handle table: object records, memory-object records, reference counts, and the views' hash.
//
// A record that somebody holds a reference on is used without the lock. ref.h holds the classes that take and drop
// references; operations use those.
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

// The state that the handles of one thread, unnamed mutex or unnamed semaphore share.
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
        // Thread and all kinds of mutexes and semaphores: the shared state itself. A memory-object record starts with it.
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

// Guarded by objMemMutex; visible for the tests.
extern ObjectRecord objects[kObjectCount];
extern ObjmemRecord objmem[kObjmemCount];
extern uint32_t firstFreeObject, lastFreeObject, firstFreeObjmem, lastFreeObjmem;
extern HANDLE mmapHashTable[kMmapBuckets];
extern int32_t bInitialized;

extern const ForkHandlers kHandleTableForkHandlers;

// The type code of a handle. No check.
constexpr uint32_t vlliGetObjectType(HANDLE handle) {
    return handle & ~kIndexMask;
}

// The record of a handle's index. No check, no lock, no reference.
inline ObjectRecord *vlliGetObjectAddress(HANDLE handle) {
    return &objects[handle & kIndexMask];
}

// Takes objMemMutex: 0, or the error number, which is also stored in errno.
int vlliLockMemoryMutex();

// Holds objMemMutex for a scope: for a few stores, and the log lines that the operations of objmem.cpp name.
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

// A new handle with one reference, or 0 with errno. Its descriptor is 0: set it before anything can fail.
HANDLE vlliCreateObject(uint32_t type);

// The two kinds of creation: an object record alone, and one with a memory-object record.
HANDLE vlliAllocObject(uint32_t type);
HANDLE vlliAllochMemObject(uint32_t type);

// Puts a record without references back on the free list: 1, or 0 with EBUSY.
BOOL vlliFreeObject(uint32_t index);

// Takes one reference on a handle's record, or returns null with errno and a log line.
ObjectRecord *vlliOpenObject(HANDLE handle);

// Drops one reference; the last one destroys the object. TRUE, or FALSE with EINVAL.
BOOL vlliCloseObject(HANDLE handle);

// Takes a reference on each of count handles under one hold of the lock: all of them, or none and false.
// Neither logs nor sets errno: a caller that needs the reason opens the handles one by one.
bool vlliOpenObjects(int32_t count, const HANDLE *handles, ObjectRecord **records);

// Drops a reference on each handle of the array that is not 0.
void vlliCloseEvents(int32_t count, const HANDLE *handles);

// Marks the handle as the library's own: vllCloseHandle() refuses it from now on.
void vlliWithholdHandle(HANDLE handle);

// Ends the caller's use of a handle, which is possible once, whatever operations still hold its record: TRUE; then one
// reference is the caller's to drop. FALSE with EINVAL for a handle that is not the caller's to close.
BOOL vlliSurrenderHandle(HANDLE handle);

// The type that a handle's record was issued as, or null. A handle may claim another one.
const ObjectType *vlliIssuedType(HANDLE handle);

// True when the record was issued for the type that the handle claims.
bool vlliIsIssuedType(HANDLE handle);

// A further reference on a memory-object record: 1, or 0 when it is free.
BOOL vlliAttachObjmem(ObjmemRecord *record);

// Drops one; the last one frees the record. 1, or 0 when it is null (EINVAL), free or no record of the table.
BOOL vlliDetachObjmem(ObjmemRecord *record);

// The same for the record of a mutex. The last reference releases the mutex if the calling thread owns it. While another
// thread of the process owns it, the record is kept: reusing its memory would corrupt that thread's robust list.
BOOL vlliDetachMutex(ObjmemRecord *record);

// Jenkins's lookup2 hash.
uint32_t vlliHash(const void *key, uint32_t length, uint32_t initial_value);

// Enters the handle of a view, whose record holds the address, into the hash: 0, or the lock's error number.
int vlliHashMMap(HANDLE handle);

// Takes the newest view at an address out of the hash: its handle, or 0.
HANDLE vlliUnhashMMapp(const void *address);

// A record's pin keeps it from being destroyed for a step of a few instructions, without a reference and without
// objMemMutex. One thread at a time holds it.
struct RecordPin {
    uint32_t busy;  // 1 while a thread holds the pin
    HANDLE handle;  // the live handle of the record; 0: there is none
};

extern RecordPin record_pins[kObjectCount];
