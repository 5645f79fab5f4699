// Scheduling and sleeping. Policies, priorities and thread identifiers are those of Linux and are passed on unchanged.

#include <sched.h>
#include <sys/resource.h>
#include <cerrno>
#include <ctime>

#include "base/blocking.h"
#include "base/failure.h"
#include "vwincompat/process.h"

namespace {

constexpr int32_t kLowestNice = -20;
constexpr int32_t kHighestNice = 20;

bool setPolicy(pid_t pid, int policy, int priority) {
    sched_param parameter = {};
    parameter.sched_priority = priority;
    return sched_setscheduler(pid, policy, &parameter) == 0;
}

}  // namespace

BOOL vllSetPriorityClass(DWORD dwProcessId, int32_t nPolicy, int32_t nPriority) {
    const auto pid = static_cast<pid_t>(dwProcessId);
    if (nPolicy == SCHED_FIFO || nPolicy == SCHED_RR) {
        return setPolicy(pid, nPolicy, nPriority);
    }
    if (nPolicy != SCHED_OTHER || nPriority < kLowestNice || nPriority > kHighestNice) {
        return Fail(EINVAL);
    }
    return setPolicy(pid, SCHED_OTHER, 0) && setpriority(PRIO_PROCESS, dwProcessId, nPriority) == 0;
}

BOOL vllGetThreadPriority(uintptr_t threadId, int32_t *lpPolicy, int32_t *lpPriority) {
    if (lpPolicy == nullptr || lpPriority == nullptr) {
        return Fail(EINVAL);
    }
    if (threadId == 0) {
        return Fail(ESRCH);
    }
    int policy;
    sched_param parameter;
    const int error = pthread_getschedparam(threadId, &policy, &parameter);
    if (error == 0) {
        *lpPolicy = policy;
        *lpPriority = parameter.sched_priority;
    }
    return vlliSucceeded(error);
}

BOOL vllSetThreadPriority(uintptr_t threadId, int32_t nPolicy, int32_t nPriority) {
    if (threadId == 0) {
        return Fail(ESRCH);
    }
    sched_param parameter = {};
    parameter.sched_priority = nPriority;
    return vlliSucceeded(pthread_setschedparam(threadId, nPolicy, &parameter));
}

int32_t vllSleep(DWORD dwMilliseconds) {
    if (dwMilliseconds == 0) {
        return sched_yield();
    }
    // As a signed number 0x80000000 and more is negative, and so are both parts; nanosleep() refuses them.
    const auto count = static_cast<int32_t>(dwMilliseconds);
    timespec left = {count / 1000, count % 1000 * 1000000L};
    return vlliRetryOnEintr([&] { return vlliBlockInNanosleep(&left, &left); });
}
