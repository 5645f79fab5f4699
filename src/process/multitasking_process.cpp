// Processes. A process handle is the handle of the thread that waits for the child.

#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "base/allocate.h"
#include "base/blocking.h"
#include "base/failure.h"
#include "base/guards.h"
#include "base/log.h"
#include "process/multitasking.h"
#include "vwincompat/thread.h"

static_assert(sizeof(PROCESS_INFORMATION) == 16 && offsetof(PROCESS_INFORMATION, dwProcessId) == 8);

namespace {

// A token takes a byte of the text at least, so no line has more tokens than bytes.
size_t argumentRoom(const char *application, const char *text) {
    const size_t most = (application != nullptr ? 1 : 0) + (text != nullptr ? strlen(text) : 0);
    return std::min<size_t>(most, VLL_ARGUMENT_LIMIT - 1);
}

// Fills the argument vector from the application name and the command line, which is cut in place.
bool planVector(ChildPlan *plan, const char *application, char *text) {
    const size_t room = argumentRoom(application, text);
    if (!vlliPlanArguments(plan, room)) {
        return false;
    }
    size_t count = 0;
    if (application != nullptr) {
        plan->arguments[count++] = const_cast<char *>(application);
    }
    if (text != nullptr) {
        count += vlliCutCommandLine(text, plan->arguments + count, room - count);
    }
    if (count > room) {
        return Fail(E2BIG);
    }
    if (count == 0) {
        return Fail(EINVAL);
    }
    plan->arguments[count] = nullptr;
    return true;
}

bool planChild(ChildPlan *plan, const char *application, char *text, const char *directory) {
    if (!planVector(plan, application, text) ||
        (directory != nullptr && !vlliPlanDirectory(plan, directory)) ||
        !vlliPlanProgram(plan, plan->arguments[0])) {
        return false;
    }
    vlliPlanLog(plan);
    return true;
}

// True for what can name a single process: 0 and negative numbers name groups, or everybody.
bool isProcessId(DWORD pid) {
    return pid != 0 && pid <= INT_MAX;
}

}  // namespace

BOOL vllCreateProcess(LPCSTR lpApplicationName, LPCSTR lpCommandLine, LPCSTR lpCurrentDirectory,
                      PROCESS_INFORMATION *lpProcessInformation) {
    if (lpProcessInformation == nullptr) {
        return Fail(EINVAL);
    }
    HeapBlock<char> text;
    if (lpCommandLine != nullptr) {
        text.reset(strdup(lpCommandLine));
        if (text == nullptr) {
            return FALSE;
        }
    }
    ChildPlan plan;
    if (!planChild(&plan, lpApplicationName, text.get(), lpCurrentDirectory)) {
        return FALSE;
    }
    // The watcher starts with all signals blocked and stays so: handlers run elsewhere.
    const BlockSignals blocked;
    const pid_t pid = vlliForkChild(plan, blocked);
    if (pid == -1) {
        vlliLogError("vllCreateProcess() - fork() FAILED, errno = <%d> - <%s>", errno, strerror(errno));
        return FALSE;
    }
    lpProcessInformation->hThread = 0;
    lpProcessInformation->dwProcessId = static_cast<DWORD>(pid);
    lpProcessInformation->dwThreadId = 0;
    lpProcessInformation->hProcess = vllCreateThread(
        0, vlliWaitForProcess, reinterpret_cast<LPVOID>(static_cast<intptr_t>(pid)), nullptr, 0);
    return lpProcessInformation->hProcess != 0;
}

uint32_t vlliWaitForProcess(LPVOID parameter) {
    const auto pid = static_cast<pid_t>(reinterpret_cast<intptr_t>(parameter));
    pid_t result;
    do {
        result = vlliBlockInWaitpid(pid, nullptr, WUNTRACED);
    } while (result == -1 && errno == EINTR);
    return static_cast<uint32_t>(result);
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
