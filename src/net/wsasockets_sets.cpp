// Network events of sockets: which socket stands in which event's set, and for which record.
//
// The kernel knows a socket in a set by its open file and its number. So a number that was closed may stand there twice:
// for a file that a duplicate or a child keeps open, and for the socket that has the number now. At most one of them
// is a selection of this list, the one that entered last.

#include <sys/epoll.h>
#include <unistd.h>

#include "base/allocate.h"
#include "base/guards.h"
#include "core/ref.h"
#include "net/wsasockets.h"

namespace {

struct Selection {
    Selection *next;      // in its bucket
    WSASockData *record;  // the caller's: read only where the caller says that it is valid
    uint32_t set;
    int32_t socket;
    uint32_t id;        // with the number of the socket the data of the kernel's entry
    bool changes_only;  // edge-triggered
};

constexpr size_t kBuckets = 64;

// Guards the list. It is held over the calls that change a set, so that list and set agree.
pthread_mutex_t selection_mutex = PTHREAD_MUTEX_INITIALIZER;
Selection *selections[kBuckets];  // by socket number
uint32_t last_id = 0;

Selection **bucketOf(int32_t socket) {
    return &selections[static_cast<uint32_t>(socket) % kBuckets];
}

// The link to the first selection of a socket number that satisfies a condition; the link holds null if there is none.
template <typename Condition>
Selection **find(int32_t socket, Condition condition) {
    Selection **link = bucketOf(socket);
    while (*link != nullptr && ((*link)->socket != socket || !condition(**link))) {
        link = &(*link)->next;
    }
    return link;
}

Selection **findOf(const WSASockData *record) {
    return find(record->socket, [=](const Selection &selection) { return selection.record == record; });
}

void drop(Selection **link) {
    Selection *selection = *link;
    if (selection != nullptr) {
        *link = selection->next;
        free(selection);
    }
}

// Drops the selections whose events are closed: the kernel has dropped their sets.
void dropClosedSets(Selection **link) {
    while (*link != nullptr) {
        if (vlliFindEventOfSocketSet((*link)->set) == 0) {
            drop(link);
        } else {
            link = &(*link)->next;
        }
    }
}

int control(const ObjectRecord *event, int operation, const Selection &selection, uint32_t readiness) {
    epoll_event change = {};
    change.events = readiness;
    change.data.u64 = uint64_t{selection.id} << 32 | static_cast<uint32_t>(selection.socket);
    return epoll_ctl(event->efd, operation, selection.socket, &change);
}

// Takes a selection's socket out of its set, through any event that has the set: true, or false with errno.
bool removeFromSet(const Selection &selection) {
    const Ref<OBJ_EVENT> event(vlliFindEventOfSocketSet(selection.set), Refusal::kSilent);
    if (!event || vlliSocketSetOf(event.get()) != selection.set) {
        return true;
    }
    const int saved_errno = errno;
    if (control(event.get(), EPOLL_CTL_DEL, selection, 0) == -1 && errno != ENOENT) {
        return false;
    }
    errno = saved_errno;
    return true;
}

// The selection of the record in this event's set, or null.
Selection *findIn(const ObjectRecord *event, const WSASockData *record) {
    Selection *selection = *findOf(record);
    return selection != nullptr && selection->set == vlliSocketSetOf(event) ? selection : nullptr;
}

void lockSelections() {
    pthread_mutex_lock(&selection_mutex);
}

void unlockSelections() {
    pthread_mutex_unlock(&selection_mutex);
}

// A child shares the sets with its parent: the other's later selections must not pass for its own.
void separateFromParent() {
    last_id += static_cast<uint32_t>(getpid()) << 12;
    unlockSelections();
}

}  // namespace

const ForkHandlers kSelectionForkHandlers = {lockSelections, unlockSelections, separateFromParent};

int vlliEnterSocketSet(const ObjectRecord *event, WSASockData *record, uint32_t readiness) {
    const MutexLock lock(&selection_mutex);
    HeapBlock<Selection> selection = vlliAllocate<Selection>();
    if (selection == nullptr) {
        return -1;
    }
    dropClosedSets(bucketOf(record->socket));
    Selection **forgotten = findOf(record);
    if (*forgotten != nullptr) {
        removeFromSet(**forgotten);
        drop(forgotten);
    }
    *selection = {nullptr, record, vlliSocketSetOf(event), record->socket, ++last_id, false};
    if (control(event, EPOLL_CTL_ADD, *selection, readiness) == -1) {
        return -1;
    }
    // A former socket of this number is closed, or it would have been refused.
    drop(find(record->socket, [&](const Selection &former) { return former.set == selection->set; }));
    Selection **bucket = bucketOf(record->socket);
    selection->next = *bucket;
    *bucket = selection.release();
    return 0;
}

int vlliChangeSocketReadiness(const ObjectRecord *event, const WSASockData *record, uint32_t readiness) {
    const MutexLock lock(&selection_mutex);
    Selection *selection = findIn(event, record);
    if (selection == nullptr) {
        return Fail(ENOENT, -1);
    }
    selection->changes_only = false;
    return control(event, EPOLL_CTL_MOD, *selection, readiness);
}

bool vlliLeaveSocketSet(const WSASockData *record) {
    const MutexLock lock(&selection_mutex);
    Selection **link = findOf(record);
    if (*link == nullptr) {
        return true;
    }
    const bool removed = removeFromSet(**link);
    // The number of a socket that is closed cannot be taken out of the set any more.
    if (removed || errno == EBADF) {
        drop(link);
    }
    return removed;
}

void vlliReportChangesOnly(const ObjectRecord *event, const WSASockData *record, uint32_t readiness) {
    const MutexLock lock(&selection_mutex);
    Selection *selection = findIn(event, record);
    if (selection != nullptr && !selection->changes_only) {
        selection->changes_only = control(event, EPOLL_CTL_MOD, *selection, readiness | EPOLLET) == 0;
    }
}

void vlliRestoreReadiness(const ObjectRecord *event, const WSASockData *record, uint32_t readiness) {
    const MutexLock lock(&selection_mutex);
    Selection *selection = findIn(event, record);
    if (selection != nullptr && selection->changes_only) {
        selection->changes_only = control(event, EPOLL_CTL_MOD, *selection, readiness) != 0;
    }
}

WSASockData *vlliFindSelectedRecord(const ObjectRecord *event, uint64_t data) {
    const MutexLock lock(&selection_mutex);
    const auto socket = static_cast<int32_t>(static_cast<uint32_t>(data));
    Selection **link = find(socket, [=](const Selection &selection) { return selection.id == data >> 32; });
    if (*link == nullptr || (*link)->set != vlliSocketSetOf(event)) {
        return nullptr;
    }
    if ((*link)->record->socket != socket) {
        // The caller has used the record for another socket without cancelling.
        removeFromSet(**link);
        drop(link);
        return nullptr;
    }
    return (*link)->record;
}
