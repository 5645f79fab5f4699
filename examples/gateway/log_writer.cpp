// Writes what the gateway reports to a log reader, in the background: overlapped writes into a pipe, so that the loop
// never waits for a slow reader. Two buffers take turns: one is written while the other fills. Lines that do not fit
// are counted and dropped, since a log must never stop a daemon.
//
// The pipe's reader here is a thread that appends to a file (--log); it could as well be a serial line.

#include <fcntl.h>
#include <unistd.h>
#include <cstdio>
#include <cstring>

#include "gateway.h"

namespace {

enum { kBuffer = 8192, kStopMs = 5000 };

struct Buffer {
    char text[kBuffer];
    DWORD length;
};

HANDLE service = 0;
HANDLE file_writer = 0;
int pipe_fds[2] = {-1, -1};
HANDLE log_file = INVALID_HANDLE_VALUE;
Buffer buffers[2];
Buffer *filling = &buffers[0];
bool under_way = false;
unsigned dropped = 0;
bool file_is_whole = true;  // used by the thread alone until it has ended
OverlappedRecord record;

// Runs until the pipe's last writer is closed.
uint32_t copyToFile(LPVOID) {
    char text[kBuffer];
    DWORD count;
    while (vllReadFile((HANDLE)pipe_fds[0], text, sizeof text, &count, nullptr) && count > 0) {
        DWORD written;
        if (!vllWriteFile(log_file, text, count, &written, nullptr) || written < count) {
            file_is_whole = false;
        }
    }
    return 0;
}

// Starts to write the buffer that was being filled, and goes on filling the other.
void sendNotes() {
    under_way = vllWriteFile((HANDLE)pipe_fds[1], filling->text, filling->length, nullptr, &record) != 0;
    if (!under_way) {
        ++dropped;
    }
    filling = filling == &buffers[0] ? &buffers[1] : &buffers[0];
    filling->length = 0;
}

void written(void *) {
    vllResetEvent(record.event);
    under_way = false;
    if (filling->length > 0) {
        sendNotes();
    }
}

void note(const char *line) {
    if (record.event == 0) {
        return;  // no --log
    }
    const size_t length = strlen(line);
    if (length + 1 > kBuffer - filling->length) {
        ++dropped;
        return;
    }
    memcpy(filling->text + filling->length, line, length);
    filling->length += (DWORD)length;
    filling->text[filling->length++] = '\n';
    if (!under_way) {
        sendNotes();
    }
}

bool serviceIsReady() {
    for (int i = 0; i < kStopMs; ++i) {
        if (__atomic_load_n(&epoll_fd, __ATOMIC_ACQUIRE) != -1) {
            return true;
        }
        usleep(1000);
    }
    return false;
}

bool openLog() {
    log_file = vllCreateFile(settings.log_file, O_WRONLY | O_APPEND | O_CLOEXEC, 0640, OPEN_ALWAYS);
    if (log_file == INVALID_HANDLE_VALUE || pipe2(pipe_fds, O_CLOEXEC) == -1) {
        return false;
    }
    service = vllCreateThread(0, vlliAsyncIo, nullptr, nullptr, 0);
    file_writer = vllCreateThread(0, copyToFile, nullptr, nullptr, 0);
    record.event = vllCreateEvent(TRUE, FALSE, nullptr);
    return service != 0 && file_writer != 0 && record.event != 0 && serviceIsReady() &&
           loopAdd(record.event, Turn::fair, written, nullptr);
}

void endThread(HANDLE thread, bool cancel) {
    if (thread != 0) {
        if (cancel) {
            vllTerminateThread(thread, 0);
        }
        vllWaitForSingleObject(thread, kStopMs);
        vllCloseHandle(thread);
    }
}

void stop() {
    while (under_way && vllWaitForSingleObject(record.event, kStopMs) == WAIT_OBJECT_0) {
        written(nullptr);
    }
    if (under_way) {
        vllCancelIo((HANDLE)pipe_fds[1]);
    }
    if (record.event != 0) {
        loopRemove(record.event);
        vllCloseHandle(record.event);
        record.event = 0;
    }
    if (pipe_fds[1] != -1) {
        close(pipe_fds[1]);
    }
    endThread(file_writer, false);
    endThread(service, true);
    if (pipe_fds[0] != -1) {
        close(pipe_fds[0]);
    }
    if (log_file != INVALID_HANDLE_VALUE) {
        vllCloseHandle(log_file);
    }
    if (dropped > 0) {
        printf("gateway: %u lines were not logged\n", dropped);
    }
    if (!file_is_whole) {
        printf("gateway: %s could not take all lines\n", settings.log_file);
    }
}

bool start() {
    if (settings.log_file == nullptr) {
        return true;
    }
    const bool good = openLog();
    if (!good) {
        stop();
    }
    return good;
}

}  // namespace

extern const Piece log_writer_piece;
const Piece log_writer_piece = {"log writer", start, stop, note, nullptr};
