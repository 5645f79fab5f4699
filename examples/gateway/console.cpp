// The word "quit" on standard input ends the gateway. The input is a terminal or a pipe; a descriptor that cannot be
// waited for (a file, /dev/null) is not used.

#include <sys/stat.h>
#include <unistd.h>
#include <cstring>

#include "gateway.h"

namespace {

constexpr char kQuit[] = "quit";

HANDLE console = INVALID_HANDLE_VALUE;
char line[64];
size_t length = 0;

void stopListening() {
    loopRemove(console);
    vllCloseHandle(console);
    console = INVALID_HANDLE_VALUE;
}

// A program in the background must not read its terminal: it would be stopped.
bool isReadable() {
    DWORD mode = 0;
    struct stat status;
    if (vllGetConsoleMode(console, &mode)) {
        return tcgetpgrp(STDIN_FILENO) == getpgrp();
    }
    return fstat(STDIN_FILENO, &status) == 0 && S_ISFIFO(status.st_mode);
}

// Characters that do not fit are dropped: the line is then too long to be "quit" anyway.
void takeByte(char byte) {
    if (byte == '\n') {
        const bool quit = length == sizeof kQuit - 1 && memcmp(line, kQuit, length) == 0;
        length = 0;
        if (quit) {
            report("quit on the console");
            requestStop();
        }
    } else if (length < sizeof line) {
        line[length++] = byte;
    }
}

// The wait has reported that a read will not block. A read of 0 bytes is the end of the input.
void ready(void *) {
    char bytes[64];
    const ssize_t count = isReadable() ? read(STDIN_FILENO, bytes, sizeof bytes) : 0;
    if (count <= 0) {
        stopListening();
        return;
    }
    for (ssize_t i = 0; i < count; ++i) {
        takeByte(bytes[i]);
    }
}

bool start() {
    console = vllGetStdHandle(STD_INPUT_HANDLE);
    if (console == INVALID_HANDLE_VALUE) {
        return true;  // started without standard input
    }
    if (isReadable() && loopAdd(console, Turn::fair, ready, nullptr)) {
        return true;
    }
    vllCloseHandle(console);
    console = INVALID_HANDLE_VALUE;
    return true;
}

void stop() {
    if (console != INVALID_HANDLE_VALUE) {
        stopListening();
    }
}

}  // namespace

extern const Piece console_piece;
const Piece console_piece = {"console", start, stop, nullptr, nullptr};
