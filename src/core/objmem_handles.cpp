// Closing and duplicating handles, for callers.

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
    const ObjectType *row = vlliFindObjectType(type);
    if (row->duplicate == nullptr) {
        return Fail(EINVAL);
    }
    return row->duplicate(duplicate.record(), source.get()) ? duplicate.release() : 0;
}
