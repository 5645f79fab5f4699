#include "core/objmem_types.h"

#include "core/console.h"
#include "process/thread.h"
#include "sharing/shmem.h"
#include "sync/event.h"
#include "sync/mutex.h"
#include "sync/semaphore.h"
#include "sync/waitabletimer.h"

namespace {

constexpr ObjectType kObjectTypes[] = {
    {OBJ_EVENT, false, vlliCloseEvent, vlliDuplicateEvent},
    {OBJ_WAITABLE_TIMER, false, vlliCloseWaitableTimer, vlliDuplicateWaitableTimer},
    {OBJ_CONSOLE, false, vlliCloseConsole, vlliDuplicateConsole},
    {OBJ_THREAD, true, vlliCloseThread, vlliDuplicateThread},
    {OBJ_MUTEX, true, vlliCloseMutex, vlliDuplicateMutex},
    {OBJ_SEMAPHORE, true, vlliCloseSemaphore, vlliDuplicateSemaphore},
    {OBJ_SHMEM, false, vlliCloseShmem, vlliDuplicateShmem},
    {OBJ_NAMED_MUTEX, false, vlliCloseNamedObject, vlliDuplicateNamedObject},
    {OBJ_NAMED_SEMAPHORE, false, vlliCloseNamedObject, vlliDuplicateNamedObject},
};

}  // namespace

const ObjectType *vlliFindObjectType(uint32_t code) {
    for (const ObjectType &type : kObjectTypes) {
        if (type.code == code) {
            return &type;
        }
    }
    return nullptr;
}
