// Counts its own descriptors and handles: what a daemon that runs for years must be able to say of itself.

#include <dirent.h>
#include <poll.h>

#include "gateway.h"

namespace {

constexpr int kHandles = 128;  // of a process
constexpr int kAttempts = 100;
constexpr int kAttemptMs = 20;

int open_at_start = 0;

int CountDescriptors() {
    DIR *directory = opendir("/proc/self/fd");
    if (directory == nullptr) {
        return -1;
    }
    int count = 0;
    while (readdir(directory) != nullptr) {
        ++count;
    }
    closedir(directory);
    return count - 3;  // ".", ".." and the directory itself
}

// The handles that can still be made. Timers are the cheapest.
int CountFreeHandles() {
    HANDLE timers[kHandles];
    int count = 0;
    while (count < kHandles && (timers[count] = vllCreateWaitableTimer(nullptr)) != 0) {
        ++count;
    }
    for (int i = 0; i < count; ++i) {
        vllCloseHandle(timers[i]);
    }
    return count;
}

}  // namespace

void AuditBegin() {
    open_at_start = CountDescriptors();
}

bool AuditEnd() {
    int descriptors = 0;
    int handles = 0;
    // A thread signals its end a moment before it gives back its last descriptor and handle.
    for (int i = 0; i < kAttempts; ++i) {
        descriptors = CountDescriptors();
        handles = descriptors == open_at_start ? CountFreeHandles() : 0;
        if (handles == kHandles) {
            break;
        }
        poll(nullptr, 0, kAttemptMs);
    }
    Report("descriptors: %d at the start, %d at the end; handles free: %d of %d", open_at_start, descriptors,
           handles, kHandles);
    return handles == kHandles;
}
