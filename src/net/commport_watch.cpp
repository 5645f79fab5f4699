// Serial ports: the list of the records that are set up, and who uses them.

#include <pthread.h>
#include <new>

#include "base/failure.h"
#include "base/guards.h"
#include "net/commport.h"

namespace {

// Guards the list, and the numbers of users.
pthread_mutex_t watch_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t watch_unused = PTHREAD_COND_INITIALIZER;
Watch *watches = nullptr;

Watch **find(const OverlappedRecord *record) {
    Watch **link = &watches;
    while (*link != nullptr && (*link)->record != record) {
        link = &(*link)->next;
    }
    return link;
}

void lockWatches() {
    pthread_mutex_lock(&watch_mutex);
}

void unlockWatches() {
    pthread_mutex_unlock(&watch_mutex);
}

// The child has none of the threads that used the records or waited here.
void resetAfterFork() {
    for (Watch *watch = watches; watch != nullptr; watch = watch->next) {
        watch->users = 0;
        pthread_mutex_init(&watch->record->mutex, nullptr);
    }
    pthread_cond_init(&watch_unused, nullptr);
    unlockWatches();
}

}  // namespace

const ForkHandlers kSerialForkHandlers = {lockWatches, unlockWatches, resetAfterFork};

bool vlliBeginWatch(OverlappedRecord *record) {
    auto *watch = new (std::nothrow) Watch{nullptr, record, 0, std::nullopt};
    if (watch == nullptr) {
        return Fail(ENOMEM);
    }
    const MutexLock lock(&watch_mutex);
    watch->next = watches;
    watches = watch;
    return true;
}

void vlliEndWatch(const OverlappedRecord *record) {
    const MutexLock lock(&watch_mutex);
    Watch **link = find(record);
    Watch *watch = *link;
    if (watch == nullptr) {
        return;
    }
    *link = watch->next;
    while (watch->users > 0) {
        pthread_cond_wait(&watch_unused, &watch_mutex);
    }
    delete watch;
}

WatchUse::WatchUse(const OverlappedRecord *record) {
    const MutexLock lock(&watch_mutex);
    watch_ = *find(record);
    if (watch_ != nullptr) {
        ++watch_->users;
    }
}

WatchUse::~WatchUse() {
    if (watch_ != nullptr) {
        const MutexLock lock(&watch_mutex);
        if (--watch_->users == 0) {
            pthread_cond_broadcast(&watch_unused);
        }
    }
}
