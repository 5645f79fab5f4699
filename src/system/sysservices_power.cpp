// Power-off, reboot and timed shutdown.

#include <sys/reboot.h>
#include <sys/wait.h>
#include <cerrno>

#include "base/failure.h"
#include "base/program.h"
#include "vwincompat/system.h"

namespace {

constexpr int kShellCannotRun = 127;

BOOL rebootMachine() {
    int status;
    if (!vlliRunProgram({"/bin/sh", "-c", "/sbin/reboot"}, &status)) {
        return FALSE;
    }
    if (status == 0) {
        return TRUE;
    }
    return Fail(WIFEXITED(status) && WEXITSTATUS(status) == kShellCannotRun ? ENOENT : EIO);
}

}  // namespace

BOOL vllExitWindowsEx(UINT uFlags) {
    return uFlags == 0 ? reboot(RB_POWER_OFF) == 0 : rebootMachine();
}

BOOL vllInitiateSystemShutdown(BOOL bRebootAfterShutdown) {
    ChildPlan plan;
    if (!vlliPlanCommand(&plan, {"shutdown", bRebootAfterShutdown != 0 ? "-r" : "-h", "+1"})) {
        return FALSE;
    }
    const BlockSignals blocked;
    StartedChild child;
    return vlliStartProgram(plan, blocked.before(), &child);
}
