// Serial ports: purging and modem lines.

#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include "base/failure.h"
#include "vwincompat/serial.h"

BOOL vllPurgeComm(int32_t hFile, DWORD dwFlags) {
    if (isatty(hFile) == 0) {
        return FALSE;
    }
    if ((dwFlags & (PURGE_RXCLEAR | PURGE_TXCLEAR)) == 0) {
        return Fail(EINVAL);
    }
    tcflush(hFile, (dwFlags & PURGE_RXCLEAR) != 0 ? TCIFLUSH : TCOFLUSH);
    return TRUE;
}

BOOL vllGetCommModemStatus(int32_t hFile, LPDWORD lpModemStat) {
    struct Line {
        int line;
        DWORD status;
    };
    static constexpr Line kLines[] = {
        {TIOCM_CTS, MS_CTS_ON}, {TIOCM_DSR, MS_DSR_ON}, {TIOCM_RNG, MS_RING_ON}, {TIOCM_CAR, MS_RLSD_ON}};
    if (lpModemStat == nullptr) {
        return Fail(EINVAL);
    }
    int active = 0;
    if (ioctl(hFile, TIOCMGET, &active) == -1) {
        return FALSE;
    }
    *lpModemStat = 0;
    for (const Line &line : kLines) {
        *lpModemStat |= (active & line.line) != 0 ? line.status : 0;
    }
    return TRUE;
}

BOOL vllEscapeCommFunction(int32_t hFile, DWORD dwFunc) {
    const bool raise = dwFunc == SETDTR || dwFunc == SETRTS;
    if (!raise && dwFunc != CLRDTR && dwFunc != CLRRTS) {
        return Fail(EINVAL);
    }
    const int line = dwFunc == SETDTR || dwFunc == CLRDTR ? TIOCM_DTR : TIOCM_RTS;
    return ioctl(hFile, raise ? TIOCMBIS : TIOCMBIC, &line) != -1;
}
