// A line that begins with '!' runs a program: "!sleep 1". The answer comes when it has ended; meanwhile the loop
// waits for the process beside everything else. Whoever reaches the port may run what the gateway may, so this
// is off unless --commands is given.

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

void Release(Running *slot) {
    LoopRemove(slot->process.hProcess);
    vllCloseHandle(slot->process.hProcess);
    slot->client = nullptr;
}

void Ended(void *context) {
    auto *slot = static_cast<Running *>(context);
    Client *client = slot->client;
    char text[64];
    snprintf(text, sizeof text, "process %u has ended", slot->process.dwProcessId);
    Report("%s", text);
    Release(slot);
    ClientAnswer(client, text);
}

bool Run(Running *slot, Client *client, const char *command_line) {
    if (!vllCreateProcess(nullptr, command_line, nullptr, &slot->process)) {
        return false;
    }
    slot->client = client;
    if (!LoopAdd(slot->process.hProcess, Turn::fair, Ended, slot)) {
        vllTerminateProcess(slot->process.dwProcessId, 1);
        Release(slot);
        return false;
    }
    Report("process %u runs \"%s\"", slot->process.dwProcessId, command_line);
    return true;
}

bool Command(Client *client, const char *line) {
    if (!settings.commands) {
        return false;
    }
    for (Running &slot : running) {
        if (slot.client == nullptr) {
            if (!Run(&slot, client, line + 1)) {
                ClientAnswer(client, "error: the program could not be started");
            }
            return true;
        }
    }
    ClientAnswer(client, "error: too many programs are running");
    return true;
}

// The clients are gone: nobody waits for an answer any more.
void Stop() {
    for (Running &slot : running) {
        if (slot.client != nullptr) {
            vllTerminateProcess(slot.process.dwProcessId, 1);
            vllWaitForSingleObject(slot.process.hProcess, kStopTimeoutMs);
            Release(&slot);
        }
    }
}

}  // namespace

extern const Piece processes_piece;
const Piece processes_piece = {"processes", nullptr, Stop, nullptr, Command};
