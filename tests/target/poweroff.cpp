// Powers the machine off through the library: the last step of a run on the emulated target, which ends
// because of it. Refuses to do so anywhere else.

#include <sys/utsname.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vwincompat.h"

int main() {
    if (getenv("VLL_TARGET") == nullptr || access("/.dockerenv", F_OK) == 0) {
        fprintf(stderr, "target_poweroff: not on the emulated target (VLL_TARGET is not set)\n");
        return 2;
    }
    struct utsname system;
    vllvwincompatMain();
    if (!vllGetSystemInfo(&system) || strncmp(system.machine, "arm", 3) != 0) {
        fprintf(stderr, "target_poweroff: not an ARM machine\n");
        return 2;
    }
    printf("target_poweroff: switching %s (%s) off\n", system.nodename, system.machine);
    fflush(stdout);
    sync();
    vllExitWindowsEx(0);
    fprintf(stderr, "target_poweroff: still on: %s\n", strerror(errno));
    return 1;
}
