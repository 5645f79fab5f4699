/*
 * Prints what a serial port receives and how its modem lines change, until the port is gone or Ctrl-C.
 *
 *   serial_monitor /dev/ttyS0
 */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>
#include <vwincompat.h>

static int fail(const char *what) {
    fprintf(stderr, "serial_monitor: %s: %s\n", what, strerror((int)vllGetLastError()));
    return 1;
}

/* Prints the active lines, when a change was reported or they differ from those printed last. */
static void printLines(int port, int reported, DWORD *printed) {
    DWORD lines;
    if (vllGetCommModemStatus(port, &lines) && (reported || lines != *printed)) {
        printf("lines:%s%s%s%s\n", lines & MS_CTS_ON ? " CTS" : "", lines & MS_DSR_ON ? " DSR" : "",
               lines & MS_RING_ON ? " RING" : "", lines & MS_RLSD_ON ? " RLSD" : "");
        *printed = lines;
    }
}

/*
 * Copies what has arrived: 1, or 0 when the port is gone. There may be nothing: data that was read while the watcher
 * looked at the port is reported once more.
 */
static int printData(int port) {
    char buffer[256];
    const ssize_t length = read(port, buffer, sizeof buffer);
    if (length > 0) {
        printf("data: %.*s\n", (int)length, buffer);
    }
    return length > 0 || (length == -1 && (errno == EAGAIN || errno == EINTR));
}

/* Handles one event after the other. The port is open for reading without blocking. */
static int monitor(int port, OverlappedRecord *record) {
    uint32_t events = 0;
    DWORD lines = ~(DWORD)0;
    for (;;) {
        while (!vllWaitCommEvent(port, &events, record)) {
            if (vllGetLastError() != EINPROGRESS) {
                return fail("wait");
            }
            /* Changes from here on are reported. Those since the lines were last read are not: read them again. */
            printLines(port, 0, &lines);
            fflush(stdout);
            if (vllWaitForSingleObject(record->event, INFINITE) != WAIT_OBJECT_0) {
                return fail("wait");
            }
        }
        if ((events & (EV_CTS | EV_DSR | EV_RLSD | EV_RING)) != 0) {
            printLines(port, 1, &lines);
        }
        if ((events & EV_RXCHAR) != 0 && !printData(port)) {
            return 0;
        }
    }
}

int main(int argc, char **argv) {
    OverlappedRecord record = {0};
    struct termios settings;
    int status = 1;
    if (argc != 2) {
        fprintf(stderr, "usage: serial_monitor PORT\n");
        return 2;
    }
    vllvwincompatMain();
    const int port = open(argv[1], O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (port == -1 || tcgetattr(port, &settings) == -1) {
        return fail(argv[1]);
    }
    cfmakeraw(&settings);
    tcsetattr(port, TCSANOW, &settings);
    record.event = vllCreateEvent(TRUE, FALSE, NULL);
    if (vllSetCommMask(port, EV_RXCHAR | EV_CTS | EV_DSR | EV_RLSD | EV_RING, &record)) {
        status = monitor(port, &record);
    } else {
        fail("watch");
    }
    vllSetCommMask(port, 0, &record);
    vllCloseHandle(record.event);
    close(port);
    vllvwincompatExit();
    return status;
}
