// Processes. A process handle is the handle of the thread that waits for the child, so that every operation on
// threads works on it.

#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/blocking.h"
#include "base/failure.h"
#include "base/guards.h"
#include "base/log.h"
#include "base/program.h"
#include "process/multitasking.h"
#include "vwincompat/thread.h"

static_assert(sizeof(PROCESS_INFORMATION) == 16 && offsetof(PROCESS_INFORMATION, dwProcessId) == 8);

namespace {

constexpr char kPathPrefix[] = "PATH=";

// What a child is started from.
struct ProcessPlan {
    CommandLine line;
    char path[sizeof kPathPrefix - 1 + VLL_PATH_SIZE];  // PATH with the directory
    ChildPlan child;
};

// Builds the argument vector from the application name and the tokens of the command line: false with errno.
bool planVector(ProcessPlan *plan, const char *application, const char *text) {
    const size_t names = application != nullptr ? 1 : 0;
    // A token takes a byte of the text at least, so no line has more tokens than bytes.
    const size_t limit =
        std::min<size_t>(names + (text != nullptr ? strlen(text) : 0), VLL_ARGUMENT_LIMIT - 1);
    if (!plan->line.copy(text) || !vlliPlanArguments(&plan->child, limit)) {
        return false;
    }
    char **arguments = plan->child.arguments;
    size_t count = 0;
    if (application != nullptr) {
        arguments[count++] = const_cast<char *>(application);
    }
    while (char *token = plan->line.next()) {
        if (count == limit) {
            return Fail(E2BIG);
        }
        arguments[count++] = token;
    }
    arguments[count] = nullptr;
    return count != 0 || Fail(EINVAL);
}

// Makes the child change to the directory, and its PATH end with it: false with errno.
bool planDirectory(ProcessPlan *plan, const char *directory) {
    const char *inherited = getenv("PATH");
    const bool alone = inherited == nullptr || *inherited == '\0';
    const int length = snprintf(plan->path, sizeof plan->path, "%s%s%s%s", kPathPrefix,
                                alone ? "" : inherited, alone ? "" : ":", directory);
    if (length < 0 || static_cast<size_t>(length) >= sizeof plan->path) {
        return Fail(ENAMETOOLONG);
    }
    plan->child.directory = directory;
    return vlliPlanPath(&plan->child, plan->path);
}

bool planProcess(ProcessPlan *plan, const char *application, const char *text, const char *directory) {
    return planVector(plan, application, text) && (directory == nullptr || planDirectory(plan, directory)) &&
           vlliPlanProgram(&plan->child, plan->child.arguments[0]);
}

void logFailure(const char *call, int error) {
    vlliLogError("vllCreateProcess() - %s() FAILED, errno = <%d> - <%s>", call, error, strerror(error));
}

// True for a number that can be the id of a single process: kill(2) and waitpid(2) take 0 and negative numbers for
// groups, or for all processes.
bool isProcessId(DWORD pid) {
    return pid != 0 && pid <= INT_MAX;
}

}  // namespace

BOOL vllCreateProcess(LPCSTR lpApplicationName, LPCSTR lpCommandLine, LPCSTR lpCurrentDirectory,
                      PROCESS_INFORMATION *lpProcessInformation) {
    if (lpProcessInformation == nullptr) {
        return Fail(EINVAL);
    }
    ProcessPlan plan;
    if (!planProcess(&plan, lpApplicationName, lpCommandLine, lpCurrentDirectory)) {
        return FALSE;
    }
    // The thread that waits for the child starts with all signals blocked and stays so: handlers run elsewhere.
    const BlockSignals blocked;
    StartedChild child;
    if (!vlliStartProgram(plan.child, blocked.before(), &child)) {
        logFailure("fork", errno);
        return FALSE;
    }
    if (child.failed_call != nullptr) {
        logFailure(child.failed_call, child.error);
    }
    lpProcessInformation->hThread = 0;
    lpProcessInformation->dwProcessId = static_cast<DWORD>(child.pid);
    lpProcessInformation->dwThreadId = 0;
    lpProcessInformation->hProcess = vllCreateThread(
        0, vlliWaitForProcess, reinterpret_cast<LPVOID>(static_cast<intptr_t>(child.pid)), nullptr, 0);
    return lpProcessInformation->hProcess != 0;
}

uint32_t vlliWaitForProcess(LPVOID parameter) {
    const auto pid = static_cast<pid_t>(reinterpret_cast<intptr_t>(parameter));
    return static_cast<uint32_t>(
        vlliRetryOnEintr([=] { return vlliBlockInWaitpid(pid, nullptr, WUNTRACED); }));
}

void vllExitProcess(UINT uExitCode) {
    exit(static_cast<int>(uExitCode));
}

DWORD vllGetCurrentProcessId() {
    return static_cast<DWORD>(getpid());
}

BOOL vllGetExitCodeProcess(DWORD dwProcessId, LPDWORD lpExitCode) {
    if (lpExitCode == nullptr) {
        return Fail(EINVAL);
    }
    if (!isProcessId(dwProcessId)) {
        return Fail(ECHILD);
    }
    const NoCancel no_cancel;
    int status = 0;
    const pid_t result = waitpid(static_cast<pid_t>(dwProcessId), &status, WNOHANG);
    if (result == -1) {
        return FALSE;
    }
    *lpExitCode = result == 0 ? STILL_ACTIVE : static_cast<DWORD>(status);
    return TRUE;
}

BOOL vllTerminateProcess(DWORD dwProcessId, UINT uExitCode) {
    if (!isProcessId(dwProcessId)) {
        return Fail(ESRCH);
    }
    const auto pid = static_cast<pid_t>(dwProcessId);
    if (pid == getpid()) {
        _exit(static_cast<int>(uExitCode));
    }
    if (kill(pid, 0) == -1) {
        return FALSE;
    }
    kill(pid, SIGKILL);
    return TRUE;
}
