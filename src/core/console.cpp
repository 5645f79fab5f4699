// Console handles. No operation checks that the handle is a console's: the terminal calls themselves fail on anything
// that is no terminal.

#include "core/console.h"

#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include "base/descriptor.h"
#include "base/failure.h"
#include "core/ref.h"

namespace {

struct ModeBit {
    DWORD mode;
    tcflag_t flag;
};

constexpr ModeBit kModeBits[] = {
    {ENABLE_LINE_INPUT, ICANON},
    {ENABLE_ECHO_INPUT, ECHO},
    {ENABLE_PROCESSED_INPUT, ISIG},
};

}  // namespace

HANDLE vllGetStdHandle(DWORD nStdHandle) {
    if (nStdHandle > STD_ERROR_HANDLE) {
        return Fail(EINVAL, INVALID_HANDLE_VALUE);
    }
    NewHandle handle(vlliCreateObject(OBJ_CONSOLE));
    if (!handle) {
        return INVALID_HANDLE_VALUE;
    }
    ObjectRecord *console = handle.record();
    console->fd = dup(static_cast<int>(nStdHandle));
    return console->fd != -1 ? handle.release() : INVALID_HANDLE_VALUE;
}

BOOL vllGetConsoleMode(HANDLE hConsole, LPDWORD lpMode) {
    if (lpMode == nullptr) {
        return Fail(EINVAL);
    }
    const ObjectRef console(hConsole);
    termios settings;
    if (!console || tcgetattr(console->fd, &settings) == -1) {
        return FALSE;
    }
    *lpMode = 0;
    for (const ModeBit &bit : kModeBits) {
        if ((settings.c_lflag & bit.flag) != 0) {
            *lpMode |= bit.mode;
        }
    }
    return TRUE;
}

BOOL vllSetConsoleMode(HANDLE hConsole, DWORD dwMode) {
    const ObjectRef console(hConsole);
    termios settings;
    if (!console || tcgetattr(console->fd, &settings) == -1) {
        return FALSE;
    }
    for (const ModeBit &bit : kModeBits) {
        if ((dwMode & bit.mode) != 0) {
            settings.c_lflag |= bit.flag;
        } else {
            settings.c_lflag &= ~bit.flag;
        }
    }
    return tcsetattr(console->fd, TCSANOW, &settings) == 0;
}

BOOL vllFlushConsoleInputBuffer(HANDLE hConsole) {
    const ObjectRef console(hConsole);
    return console && tcflush(console->fd, TCIFLUSH) == 0;
}

BOOL vllGetNumberOfConsoleInputEvents(HANDLE hConsole, LPDWORD lpcNumberOfEvents) {
    if (lpcNumberOfEvents == nullptr) {
        return Fail(EINVAL);
    }
    const ObjectRef console(hConsole);
    return console && ioctl(console->fd, FIONREAD, lpcNumberOfEvents) == 0;
}

BOOL vlliCloseConsole(ObjectRecord *record) {
    Fd fd(record->fd);
    return TRUE;
}

BOOL vlliDuplicateConsole(ObjectRecord *record, const ObjectRecord *source) {
    record->fd = dup(source->fd);
    if (record->fd == -1) {
        return FALSE;
    }
    record->flags = source->flags;
    return TRUE;
}
