// The handle table: object records, memory-object records, reference counts, and the views' hash.
#pragma once

#include <pthread.h>
#include <semaphore.h>
#include <cstddef>
#include <cstdint>

#include "base/internal.h"
#include "vwincompat/handle.h"
#include "vwincompat/thread.h"

constexpr uint32_t kObjectCount = 128;
constexpr uint32_t kObjmemCount = 32;
constexpr uint32_t kMmapBuckets = 32;
constexpr uint32_t kIndexMask = 0xFFFF;
constexpr uint32_t kNoNext = 0xFFFFFFFF;

// Object record flags.
constexpr uint32_t OBJF_AUTO_RESET = 1;   // a wait that reports the object reads its counter
constexpr uint32_t OBJF_FILE_BACKED = 2;  // a file mapping of the caller's file

// A thread's shared state; every handle of the thread points at it.
struct ThreadData {
    HANDLE handle;  // the thread's own handle; 0 once the thread has ended
    LPTHREAD_START_ROUTINE startAddress;
    LPVOID parameter;
    pthread_t threadId;
    uint32_t exitCode;
    sem_t resumeSem;
};

// The state that the handles of one thread, unnamed mutex or unnamed semaphore share.
struct ObjmemRecord {
    union {
        ThreadData thread;
        pthread_mutex_t mutex;
        sem_t semaphore;
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
    };
    SIZE_T size;
    int32_t refCount;  // 0 while free
    uint32_t next;     // while free: the next free index; while a mapped view: the next handle in its bucket
};

static_assert(sizeof(pthread_t) == sizeof(uintptr_t));
#if !defined(__LP64__)
static_assert(sizeof(ThreadData) == 36 && offsetof(ThreadData, resumeSem) == 20);
static_assert(sizeof(ObjmemRecord) == 44 && offsetof(ObjmemRecord, refCount) == 36);
static_assert(sizeof(ObjectRecord) == 24 && offsetof(ObjectRecord, efd) == 8 &&
              offsetof(ObjectRecord, size) == 12 && offsetof(ObjectRecord, refCount) == 16 &&
              offsetof(ObjectRecord, next) == 20);
static_assert(sizeof(pthread_mutex_t) == 24 && sizeof(sem_t) == 16);
#endif
static_assert(offsetof(ObjmemRecord, thread) == 0 && offsetof(ObjmemRecord, refCount) >= sizeof(ThreadData) &&
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

// objMemMutex for a scope. Nothing but a few stores (and the log lines named in objmem.cpp) goes inside.
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
// Neither logs nor sets errno: whoever wants the reason opens them one by one.
bool vlliOpenObjects(int32_t count, const HANDLE *handles, ObjectRecord **records);

// Drops a reference on each handle of the array that is not 0.
void vlliCloseEvents(int32_t count, const HANDLE *handles);

// The handle becomes the library's own: vllCloseHandle() refuses it from now on.
void vlliKeepHandle(HANDLE handle);

// True when the record was issued for the type that the handle claims.
bool vlliIsIssuedType(HANDLE handle);

// A further reference on a memory-object record: 1, or 0 when it is free.
BOOL vlliAttachObjmem(ObjmemRecord *record);

// Drops one; the last one frees the record. 1, or 0 when it is null (EINVAL), free or no record of the table.
BOOL vlliDetachObjmem(ObjmemRecord *record);

// Jenkins's lookup2 hash.
uint32_t vlliHash(const void *key, uint32_t length, uint32_t initial_value);

// Enters the handle of a view, whose record holds the address, into the hash: 0, or the lock's error number.
int vlliHashMMap(HANDLE handle);

// Takes the newest view at an address out of the hash: its handle, or 0.
HANDLE vlliUnhashMMapp(const void *address);

// One reference on a handle's record for a scope. A handle whose type code is not that of its record is
// refused with EINVAL, so that no operation follows a word that is not its own.
class ObjectRef {
  public:
    explicit ObjectRef(HANDLE handle) { open(handle); }
    // Opens only what claims to be of the type: any other handle is left alone, errno included.
    ObjectRef(HANDLE handle, uint32_t type) : ObjectRef() {
        if (vlliGetObjectType(handle) == type) {
            open(handle);
        }
    }
    // The same without a log line for a handle that is not open.
    struct Quietly {};
    ObjectRef(HANDLE handle, uint32_t type, Quietly) : handle_(handle) {
        if (vlliGetObjectType(handle) == type) {
            vlliOpenObjects(1, &handle, &record_);
        }
    }
    ~ObjectRef() { close(); }
    ObjectRef(const ObjectRef &) = delete;
    ObjectRef &operator=(const ObjectRef &) = delete;

    explicit operator bool() const { return record_ != nullptr; }
    ObjectRecord *operator->() const { return record_; }
    ObjectRecord *get() const { return record_; }

    // Drops the reference early; errno is kept.
    BOOL close() {
        if (record_ == nullptr) {
            return FALSE;
        }
        record_ = nullptr;
        const KeepErrno keep_errno;
        return vlliCloseObject(handle_);
    }

  private:
    ObjectRef() = default;
    void open(HANDLE handle);

    HANDLE handle_ = 0;
    ObjectRecord *record_ = nullptr;
};

// Where one thread at a time may step in beside a live record, without a reference and without objMemMutex.
struct Gate {
    uint32_t busy;  // 1 while somebody is inside
    HANDLE handle;  // the record's; 0: closed
};

extern Gate gates[kObjectCount];

// A live handle's record kept from being destroyed for a step of a few instructions, which costs a quarter of taking
// and dropping a reference. Null, without a log line, for any other handle (one without a type has no place here),
// and while another thread is at the same record: then a reference does it.
class PinnedRecord {
  public:
    explicit PinnedRecord(HANDLE handle) {
        const uint32_t index = handle & kIndexMask;
        if (index >= kObjectCount || __atomic_exchange_n(&gates[index].busy, 1, __ATOMIC_ACQUIRE) != 0) {
            return;
        }
        gate_ = &gates[index];
        if (__atomic_load_n(&gate_->handle, __ATOMIC_RELAXED) == handle) {
            record_ = &objects[index];
        }
    }
    ~PinnedRecord() {
        if (gate_ != nullptr) {
            __atomic_store_n(&gate_->busy, 0, __ATOMIC_RELEASE);
        }
    }
    PinnedRecord(const PinnedRecord &) = delete;
    PinnedRecord &operator=(const PinnedRecord &) = delete;

    explicit operator bool() const { return record_ != nullptr; }
    ObjectRecord *operator->() const { return record_; }

  private:
    Gate *gate_ = nullptr;
    ObjectRecord *record_ = nullptr;
};

// A handle under construction: closed at the end of its scope, with errno kept, unless it is released.
class NewHandle {
  public:
    explicit NewHandle(HANDLE handle) : handle_(handle) {}
    ~NewHandle() {
        if (handle_ != 0) {
            const KeepErrno keep_errno;
            vlliCloseObject(handle_);
        }
    }
    NewHandle(const NewHandle &) = delete;
    NewHandle &operator=(const NewHandle &) = delete;

    explicit operator bool() const { return handle_ != 0; }
    HANDLE get() const { return handle_; }
    ObjectRecord *record() const { return vlliGetObjectAddress(handle_); }
    HANDLE release() {
        const HANDLE handle = handle_;
        handle_ = 0;
        return handle;
    }

  private:
    HANDLE handle_;
};
