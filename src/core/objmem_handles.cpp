// Closing and duplicating handles, and what depends on the type of a handle.

#include "base/descriptor.h"
#include "base/failure.h"
#include "core/objmem_types.h"
#include "core/ref.h"

BOOL vllCloseHandle(HANDLE handle) {
    if (vlliGetObjectType(handle) != 0) {
        return vlliSurrenderHandle(handle) && vlliCloseObject(handle);
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
    return vlliFindObjectType(type)->duplicate(duplicate.record(), source.get()) ? duplicate.release() : 0;
}

WaitKind vlliWaitKind(HANDLE handle) {
    const ObjectType *type = vlliFindObjectType(vlliGetObjectType(handle));
    return type != nullptr ? type->wait : WaitKind::kNone;
}

HANDLE vlliMakeNamedObject(uint32_t type, LPCSTR name, uint32_t initial) {
    return vlliFindObjectType(type)->create_named(type, name, initial);
}
