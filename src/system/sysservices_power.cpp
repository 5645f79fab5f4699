// Power-off, reboot and timed shutdown.

#include <sys/reboot.h>
#include <sys/wait.h>
#include <cerrno>

#include "base/blocking.h"
#include "process/multitasking.h"
#include "vwincompat/system.h"

namespace {

constexpr int kShellCannotRun = 127;

// Runs a command and waits for it: FALSE with errno unless it ended well.
BOOL runCommand(const char *command) {
    const int status = vlliBlockInSystem(command);
    if (status > 0) {
        errno = WIFEXITED(status) && WEXITSTATUS(status) == kShellCannotRun ? ENOENT : EIO;
    }
    return status == 0;
}

}  // namespace

BOOL vllExitWindowsEx(UINT uFlags) {
    return uFlags == 0 ? reboot(RB_POWER_OFF) == 0 : runCommand("/sbin/reboot");
}

BOOL vllInitiateSystemShutdown(BOOL bRebootAfterShutdown) {
    const char *const arguments[] = {"shutdown", bRebootAfterShutdown != 0 ? "-r" : "-h", "+1"};
    ChildPlan plan;
    if (!vlliPlanArguments(&plan, 3) || !vlliPlanProgram(&plan, arguments[0])) {
        return FALSE;
    }
    char **next = plan.arguments;
    for (const char *argument : arguments) {
        *next++ = const_cast<char *>(argument);
    }
    *next = nullptr;
    const BlockSignals blocked;
    return vlliForkChild(plan, blocked) != -1;
}
