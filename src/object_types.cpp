// The table of object types. It is the one place that knows the functions of all types, which live in several
// folders. A new type adds a row here.

#include "core/console.h"
#include "core/objmem_types.h"
#include "process/thread.h"
#include "sharing/shmem.h"
#include "sync/event.h"
#include "sync/mutex.h"
#include "sync/semaphore.h"
#include "sync/waitabletimer.h"

namespace {

constexpr ObjectType kObjectTypes[] = {
    {OBJ_EVENT, false, WaitKind::kEvent, vlliCloseEvent, vlliDuplicateEvent},
    {OBJ_WAITABLE_TIMER, false, WaitKind::kDescriptor, vlliCloseWaitableTimer, vlliDuplicateWaitableTimer},
    {OBJ_CONSOLE, false, WaitKind::kFile, vlliCloseConsole, vlliDuplicateConsole},
    {OBJ_THREAD, true, WaitKind::kDescriptor, vlliCloseThread, vlliDuplicateThread, vlliThreadRuns},
    {OBJ_MUTEX, true, WaitKind::kMutex, vlliCloseMutex, vlliDuplicateMutex},
    {OBJ_SEMAPHORE, true, WaitKind::kSemaphore, vlliCloseSemaphore, vlliDuplicateSemaphore},
    {OBJ_SHMEM, false, WaitKind::kNone, vlliCloseShmem, vlliDuplicateShmem},
    {OBJ_NAMED_MUTEX, false, WaitKind::kMutex, vlliCloseNamedObject, vlliDuplicateNamedObject, nullptr,
     vlliCreateNamedObject},
    {OBJ_NAMED_SEMAPHORE, false, WaitKind::kSemaphore, vlliCloseNamedObject, vlliDuplicateNamedObject,
     nullptr, vlliCreateNamedObject},
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
