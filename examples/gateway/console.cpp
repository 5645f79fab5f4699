// The word "quit" on standard input ends the gateway. The input is a terminal or a pipe: what cannot be
// waited for (a file, /dev/null) is left alone.

#include <sys/stat.h>
#include <unistd.h>
#include <cstring>

#include "gateway.h"

namespace {

constexpr char kQuit[] = "quit";

HANDLE console = INVALID_HANDLE_VALUE;
char line[64];
size_t length = 0;

void StopListening() {
    LoopRemove(console);
    vllCloseHandle(console);
    console = INVALID_HANDLE_VALUE;
}

// A program in the background must not read its terminal: it would be stopped.
bool IsReadable() {
    DWORD mode = 0;
    struct stat status;
    if (vllGetConsoleMode(console, &mode)) {
        return tcgetpgrp(STDIN_FILENO) == getpgrp();
    }
    return fstat(STDIN_FILENO, &status) == 0 && S_ISFIFO(status.st_mode);
}

// What does not fit is no part of the line, which is then too long for "quit" anyway.
void TakeByte(char byte) {
    if (byte == '\n') {
        const bool quit = length == sizeof kQuit - 1 && memcmp(line, kQuit, length) == 0;
        length = 0;
        if (quit) {
            Report("quit on the console");
            RequestStop();
        }
    } else if (length < sizeof line) {
        line[length++] = byte;
    }
}

// The wait has said that a read will not block. Nothing to read is the end of the input.
void Ready(void *) {
    char bytes[64];
    const ssize_t count = IsReadable() ? read(STDIN_FILENO, bytes, sizeof bytes) : 0;
    if (count <= 0) {
        StopListening();
        return;
    }
    for (ssize_t i = 0; i < count; ++i) {
        TakeByte(bytes[i]);
    }
}

bool Start() {
    console = vllGetStdHandle(STD_INPUT_HANDLE);
    if (console == INVALID_HANDLE_VALUE) {
        return true;  // started without standard input
    }
    if (IsReadable() && LoopAdd(console, Turn::fair, Ready, nullptr)) {
        return true;
    }
    vllCloseHandle(console);
    console = INVALID_HANDLE_VALUE;
    return true;
}

void Stop() {
    if (console != INVALID_HANDLE_VALUE) {
        StopListening();
    }
}

}  // namespace

extern const Piece console_piece;
const Piece console_piece = {"console", Start, Stop, nullptr, nullptr};
