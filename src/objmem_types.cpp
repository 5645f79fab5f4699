#include "objmem_types.h"

#include "console.h"
#include "event.h"
#include "thread.h"
#include "waitabletimer.h"

namespace {

constexpr ObjectType kObjectTypes[] = {
    {OBJ_EVENT, false, vlliCloseEvent, vlliDuplicateEvent},
    {OBJ_WAITABLE_TIMER, false, vlliCloseWaitableTimer, vlliDuplicateWaitableTimer},
    {OBJ_CONSOLE, false, vlliCloseConsole, vlliDuplicateConsole},
    {OBJ_THREAD, true, vlliCloseThread, vlliDuplicateThread},
    {OBJ_MUTEX, true, nullptr, nullptr},
    {OBJ_SEMAPHORE, true, nullptr, nullptr},
    {OBJ_SHMEM, false, nullptr, nullptr},
    {OBJ_NAMED_MUTEX, false, nullptr, nullptr},
    {OBJ_NAMED_SEMAPHORE, false, nullptr, nullptr},
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
