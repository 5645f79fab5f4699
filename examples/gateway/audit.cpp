// Checks at the end that the gateway has closed every descriptor and handle: a daemon that runs for years must not
// leak any.

#include <dirent.h>
#include <poll.h>

#include "gateway.h"

namespace {

constexpr int kHandles = 128;  // that a process can have
constexpr int kAttempts = 100;
constexpr int kAttemptMs = 20;

int open_at_start = 0;

int countDescriptors() {
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

// Makes handles until none is left, and closes them: how many there were. Timers are the cheapest.
int countFreeHandles() {
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

void auditBegin() {
    open_at_start = countDescriptors();
}

bool auditEnd() {
    int descriptors = 0;
    int handles = 0;
    // A thread signals its end a moment before it gives back its last descriptor and handle.
    for (int i = 0; i < kAttempts; ++i) {
        descriptors = countDescriptors();
        handles = descriptors == open_at_start ? countFreeHandles() : 0;
        if (handles == kHandles) {
            break;
        }
        poll(nullptr, 0, kAttemptMs);
    }
    report("descriptors: %d at the start, %d at the end; handles free: %d of %d", open_at_start, descriptors,
           handles, kHandles);
    return handles == kHandles;
}
