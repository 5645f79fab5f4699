// What the library does around fork(2), in the order of its locks. The handlers are registered when the library is
// loaded, before any of its locks can be taken. If they were registered at first use, a fork by another thread at
// that moment would leave the child with a lock that nobody releases.
//
// Like the table of types, this file includes headers of every folder, and no other file refers to it.

#include <pthread.h>
#include <iterator>

#include "base/failure.h"
#include "base/fork_handlers.h"
#include "core/internal_async.h"
#include "core/objmem.h"
#include "eventlog/eventlog.h"
#include "net/commport.h"
#include "net/wsasockets.h"
#include "process/memory_probe.h"
#include "process/thread.h"
#include "profile/config_copy.h"
#include "sharing/shared_descriptor.h"
#include "sharing/shmem_fork.h"

namespace {

// The outermost lock first, as in src/LAYERS.
constexpr const ForkHandlers *kHandlers[] = {
    &kDescriptorServerForkHandlers,
    &kSharedObjectForkHandlers,
    &kSerialForkHandlers,
    &kSelectionForkHandlers,
    &kAsyncServiceForkHandlers,
    &kThreadForkHandlers,
    &kProbeForkHandlers,
    &kConfigCopyForkHandlers,
    &kEventLogForkHandlers,
    &kHandleTableForkHandlers,
};
constexpr size_t kCount = std::size(kHandlers);

void run(void (*handler)()) {
    if (handler != nullptr) {
        handler();
    }
}

void prepare() {
    const KeepErrno keep_errno;
    for (const ForkHandlers *handlers : kHandlers) {
        run(handlers->prepare);
    }
}

// After the fork the locks are released, or initialised again, in the reverse order.

void finishInParent() {
    const KeepErrno keep_errno;
    for (size_t i = kCount; i-- > 0;) {
        run(kHandlers[i]->parent);
    }
}

void finishInChild() {
    const KeepErrno keep_errno;
    for (size_t i = kCount; i-- > 0;) {
        run(kHandlers[i]->child);
    }
}

__attribute__((constructor)) void registerHandlers() {
    pthread_atfork(prepare, finishInParent, finishInChild);
}

}  // namespace
