// The rows of the table of object types. object_types.cpp holds the table; only the files of core look rows up.
#pragma once

#include <cstdint>

#include "core/objmem.h"

// How a wait finds out that an object is signalled.
enum class WaitKind {
    kNone,        // the object cannot be waited for
    kDescriptor,  // its descriptor is readable
    kEvent,       // its descriptor or its epoll set of sockets is readable
    kFile,        // as kDescriptor, but the descriptor may be a regular file, which no epoll set accepts
    kMutex,       // the mutex is acquired
    kSemaphore,   // a unit is taken
};

struct ObjectType {
    uint32_t code;
    bool has_objmem;  // a record of this type comes with a memory-object record
    WaitKind wait;
    // Called without the table lock when the last reference is dropped. No other thread can reach the record.
    BOOL (*close)(ObjectRecord *record);
    // Fills a new record from a source. On failure it returns FALSE with errno, and the caller closes the new record.
    BOOL (*duplicate)(ObjectRecord *record, const ObjectRecord *source);
    // Returns true when the object is unsignalled for certain. It makes no system call. Null: only a poll can tell.
    bool (*is_unsignalled)(const ObjectRecord *record) = nullptr;
    // Makes or opens the named object of this type; initial is the ownership flag, or the count. Returns the handle,
    // with errno EEXIST if the object was in use and 0 if not; or 0 with errno. Null: objects of this type have no
    // names.
    HANDLE (*create_named)(uint32_t type, LPCSTR name, uint32_t initial) = nullptr;
};

// The row of a type code, or null.
const ObjectType *vlliFindObjectType(uint32_t code);

// How an object of the type that a handle's code names is waited for. The handle need not be open.
WaitKind vlliWaitKind(HANDLE handle);

// Calls create_named of a type that has it.
HANDLE vlliMakeNamedObject(uint32_t type, LPCSTR name, uint32_t initial);

// True for objects that are waited for through a descriptor.
constexpr bool vlliHasDescriptor(WaitKind kind) {
    return kind == WaitKind::kDescriptor || kind == WaitKind::kEvent || kind == WaitKind::kFile;
}
