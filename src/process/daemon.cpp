// The lookup of a running program by name, with the system's pidof.

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/failure.h"
#include "base/program.h"
#include "vwincompat/process.h"

namespace {

constexpr size_t kCommandSize = 50;
constexpr size_t kLongestName = kCommandSize - sizeof "pidof ";
constexpr size_t kLineSize = 256;

// Characters that mean nothing to the shell, wherever they stand in a word.
constexpr char kPlainCharacters[] =
    "abcdefghijklmnopqrstuvwxyz"
    "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
    "0123456789._-+/:@,%=";

bool isPlainName(const char *name) {
    const size_t length = strlen(name);
    return length != 0 && *name != '-' && strspn(name, kPlainCharacters) == length;
}

}  // namespace

int32_t vllGetDaemonPID(LPCSTR lpProgramName) {
    if (lpProgramName == nullptr || !isPlainName(lpProgramName)) {
        return Fail(EINVAL, -1);
    }
    if (strlen(lpProgramName) > kLongestName) {
        return Fail(ENAMETOOLONG, -1);
    }
    char command[kCommandSize];
    snprintf(command, sizeof command, "pidof %s", lpProgramName);
    char answer[kLineSize];
    int32_t pid = -1;
    // By way of the shell, since a small system may have pidof only within it.
    if (!vlliRunForLine({"/bin/sh", "-c", command}, answer, sizeof answer) ||
        sscanf(answer, "%d", &pid) != 1) {
        return -1;
    }
    return pid;
}
