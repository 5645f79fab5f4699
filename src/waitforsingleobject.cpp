#include "vwincompat/wait.h"

#include "objmem.h"
#include "waitformultipleobjects.h"

DWORD vllWaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds) {
    const ObjectRef object(hHandle);
    if (!object) {
        vlliLogError("VLL: WaitForSingleObject: invalid event handle = %d\n", static_cast<int>(hHandle));
        errno = EINVAL;
        return WAIT_FAILED;
    }
    const uint32_t type = vlliGetObjectType(hHandle);
    if (vlliIsDescriptorType(type)) {
        return vlliWaitForRecord(hHandle, object.get(), dwMilliseconds);
    }
    vlliLogError("VLL: WaitForSingleObject: invalid object type ( handle = %d, type = 0x%X)\n",
                 static_cast<int>(hHandle), type);
    errno = EINVAL;
    return WAIT_FAILED;
}
