// A line that begins with '!' runs a program: "!sleep 1". The answer comes when it has ended; meanwhile the loop
// waits for the process beside all other objects. Anyone who can connect to the port could run programs with the
// rights of the gateway, so this is off unless --commands is given.

#include <cstdio>

#include "gateway.h"

namespace {

enum { kMaxProcesses = 4 };  // each takes a wait object, and a thread that waits for the process

constexpr DWORD kStopTimeoutMs = 5000;

struct Running {
    PROCESS_INFORMATION process;
    Client *client;  // null while the slot is free
};

Running running[kMaxProcesses];

void release(Running *slot) {
    loopRemove(slot->process.hProcess);
    vllCloseHandle(slot->process.hProcess);
    slot->client = nullptr;
}

void ended(void *context) {
    auto *slot = static_cast<Running *>(context);
    Client *client = slot->client;
    char text[64];
    snprintf(text, sizeof text, "process %u has ended", slot->process.dwProcessId);
    report("%s", text);
    release(slot);
    clientAnswer(client, text);
}

bool runProgram(Running *slot, Client *client, const char *command_line) {
    if (!vllCreateProcess(nullptr, command_line, nullptr, &slot->process)) {
        return false;
    }
    slot->client = client;
    if (!loopAdd(slot->process.hProcess, Turn::fair, ended, slot)) {
        vllTerminateProcess(slot->process.dwProcessId, 1);
        release(slot);
        return false;
    }
    report("process %u runs \"%s\"", slot->process.dwProcessId, command_line);
    return true;
}

bool command(Client *client, const char *line) {
    if (!settings.commands) {
        return false;
    }
    for (Running &slot : running) {
        if (slot.client == nullptr) {
            if (!runProgram(&slot, client, line + 1)) {
                clientAnswer(client, "error: the program could not be started");
            }
            return true;
        }
    }
    clientAnswer(client, "error: too many programs are running");
    return true;
}

// The clients are gone: nobody waits for an answer any more.
void stop() {
    for (Running &slot : running) {
        if (slot.client != nullptr) {
            vllTerminateProcess(slot.process.dwProcessId, 1);
            vllWaitForSingleObject(slot.process.hProcess, kStopTimeoutMs);
            release(&slot);
        }
    }
}

}  // namespace

extern const Piece processes_piece;
const Piece processes_piece = {"processes", nullptr, stop, nullptr, command};
