// A row of the table of object types. object_types.cpp holds the table, the only place that knows all types.
#pragma once

#include <cstdint>

#include "core/objmem.h"

// How a wait learns that an object is signalled.
enum class WaitKind {
    kNone,        // it cannot be waited for
    kDescriptor,  // its descriptor is readable
    kEvent,       // so it is, or the event's set of sockets is
    kFile,        // its descriptor is a file of the caller's, which an epoll set may refuse
    kMutex,       // the mutex is acquired
    kSemaphore,   // a unit is taken
};

struct ObjectType {
    uint32_t code;
    bool has_objmem;  // comes with a memory-object record
    WaitKind wait;
    // Called without the table lock when the last reference is dropped, with a record that nobody else can reach.
    BOOL (*close)(ObjectRecord *record);
    // Fills a new record from a source. On failure it returns FALSE with errno, and the caller closes the new record.
    BOOL (*duplicate)(ObjectRecord *record, const ObjectRecord *source);
    // True when the object is known to be unsignalled without a system call. Null: it has to be polled.
    bool (*is_unsignalled)(const ObjectRecord *record) = nullptr;
    // Makes or opens the named object of this type (initial: ownership flag, or count): the handle, with errno EEXIST if
    // the object was in use, else 0; or 0 with errno. Null: objects of this type have no names.
    HANDLE (*create_named)(uint32_t type, LPCSTR name, uint32_t initial) = nullptr;
};

// The row of a type code, or null.
const ObjectType *vlliFindObjectType(uint32_t code);

constexpr bool vlliHasDescriptor(WaitKind kind) {
    return kind == WaitKind::kDescriptor || kind == WaitKind::kEvent || kind == WaitKind::kFile;
}
