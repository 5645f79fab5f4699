// One connection: the input, the job that a worker answers, and the answers that are still to be sent. Each step
// waits for the one after it. A client that does not take its answers is not read from, so that what it sends stays
// in the buffers of the network.

#include <sys/socket.h>
#include <time.h>
#include <unistd.h>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "gateway.h"

struct Client {
    time_t last_active;
    Job job;
    unsigned lines_before;  // answered before the job
    int sent;               // of job.answer
    int socket;
    HANDLE event;
    WSASockData selection;
    int32_t selected;  // the network events that are selected
    bool used;
    bool busy;      // a job or a command is under way
    bool offering;  // a command is being offered to the pieces
    bool gone;      // closed; the slot is free once it is no longer busy
    bool closing;   // the peer has closed: no event reports what is left to read
    bool ended;     // nothing more will be read
    bool skipping;  // the rest of a line that was too long
    int input_length;
    char input[kJobText];
};

namespace {

Client clients[kMaxClients];

Client *clientOfJob(Job *job) {
    return reinterpret_cast<Client *>(reinterpret_cast<char *>(job) - offsetof(Client, job));
}

time_t now() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

bool isSending(const Client *client) {
    return !client->busy && client->sent < client->job.answer_length;
}

void closeClient(Client *client) {
    if (!client->gone) {
        loopRemove(client->event);
        vllWSAEventSelect(client->socket, client->event, 0, &client->selection);
        vllCloseHandle(client->event);
        close(client->socket);
        client->gone = true;
    }
    client->used = client->busy;
}

void drop(Client *client, const char *why) {
    ++statistics.dropped;
    report("client %d dropped: %s", static_cast<int>(client - clients), why);
    closeClient(client);
}

// Sends what it can. False when the connection is broken.
bool sendAnswer(Client *client) {
    while (isSending(client)) {
        const WSABUF rest = {client->job.answer + client->sent,
                             static_cast<SIZE_T>(client->job.answer_length - client->sent)};
        DWORD sent = 0;
        if (vllWSASend(client->socket, &rest, 1, &sent) == SOCKET_ERROR) {
            return errno == EAGAIN || errno == EINTR;
        }
        client->sent += static_cast<int>(sent);
        client->last_active = now();
    }
    return true;
}

// Reads once, unless the input is full. False when the connection is broken.
bool receive(Client *client) {
    const auto space = static_cast<size_t>(kJobText - client->input_length);
    if (client->ended || space == 0) {
        return true;
    }
    const ssize_t received = recv(client->socket, client->input + client->input_length, space, 0);
    if (received == -1) {
        client->ended = client->closing;
        return client->closing || errno == EAGAIN || errno == EINTR;
    }
    client->ended = received == 0;
    client->input_length += static_cast<int>(received);
    client->last_active = now();
    return true;
}

// The length of the first line with its newline, or 0.
int firstLineLength(const Client *client, int from) {
    const void *end = memchr(client->input + from, '\n', static_cast<size_t>(client->input_length - from));
    return end == nullptr ? 0 : static_cast<int>(static_cast<const char *>(end) - client->input) + 1 - from;
}

void takeInput(Client *client, int length) {
    client->input_length -= length;
    memmove(client->input, client->input + length, static_cast<size_t>(client->input_length));
}

// Offers the first line to the pieces. A line that none of them takes is answered like any other.
void offerCommand(Client *client, int length) {
    Job *job = &client->job;
    memcpy(job->text, client->input, static_cast<size_t>(length));
    takeInput(client, length);
    job->text[length - 1] = '\0';
    client->offering = true;
    const bool taken = piecesTakeCommand(client, job->text);
    client->offering = false;
    if (!taken) {
        job->text[length - 1] = '\n';
        job->length = length;
        workersSubmit(job);
    }
}

// The length of the whole lines that can go into one job, up to the next command.
int batchLength(const Client *client) {
    int length = firstLineLength(client, 0);
    for (int lines = 1; lines < kJobLines; ++lines) {
        if (length == client->input_length || client->input[length] == '!') {
            break;
        }
        length += firstLineLength(client, length);
    }
    return length;
}

// Hands the whole lines that are there to a worker, or a command to the piece that takes it.
void handOver(Client *client) {
    client->busy = true;
    client->lines_before = client->job.lines;
    client->job.answer_length = 0;
    client->sent = 0;
    if (client->input[0] == '!') {
        offerCommand(client, firstLineLength(client, 0));
        return;
    }
    Job *job = &client->job;
    job->length = batchLength(client);
    memcpy(job->text, client->input, static_cast<size_t>(job->length));
    takeInput(client, job->length);
    workersSubmit(job);
}

// Selects the network events that the client can use now. Selecting anew also asks for the next write readiness.
void selectWanted(Client *client) {
    int32_t wanted = 0;
    if (!client->ended && !client->closing) {
        wanted = FD_WRITE | FD_CLOSE | (client->input_length < kJobText ? FD_READ : 0);
    } else if (isSending(client)) {
        wanted = FD_WRITE;
    }
    if (wanted != client->selected) {
        vllWSAEventSelect(client->socket, client->event, wanted, &client->selection);
        client->selected = wanted;
    } else if (isSending(client)) {
        vllWSAEnableWriteEvent(&client->selection);
    }
}

void answerDirectly(Client *client, const char *text) {
    Job *job = &client->job;
    const int length = snprintf(job->answer, sizeof job->answer, "%u %s\n", ++job->lines, text);
    job->answer_length = length < kJobAnswer ? length : kJobAnswer - 1;
    job->answer[job->answer_length - 1] = '\n';
    client->sent = 0;
    ++statistics.lines;
}

// Drops what belongs to a line that was too long.
void skip(Client *client) {
    const int rest = firstLineLength(client, 0);
    takeInput(client, rest > 0 ? rest : client->input_length);
    client->skipping = rest == 0;
}

// Takes the next step with the input. False when nothing can be done before more arrives.
bool useInput(Client *client) {
    if (client->skipping) {
        skip(client);
    }
    if (firstLineLength(client, 0) > 0) {
        handOver(client);
    } else if (client->input_length == kJobText) {
        answerDirectly(client, "error: line too long");
        client->skipping = true;
    } else {
        return false;
    }
    return true;
}

// Does whatever can be done now. The client may be gone afterwards.
void advance(Client *client) {
    for (;;) {
        if (!sendAnswer(client)) {
            drop(client, strerror(errno));
            return;
        }
        if (client->busy || isSending(client)) {
            break;
        }
        if (!useInput(client)) {
            if (client->ended) {
                statistics.cut += client->input_length > 0 ? 1 : 0;
                closeClient(client);
                return;
            }
            if (!client->closing) {
                break;
            }
            receive(client);
        }
    }
    selectWanted(client);
}

void networkEvent(void *context) {
    auto *client = static_cast<Client *>(context);
    WSANETWORKEVENTS occurred;
    vllWSAEnumNetworkEvents(&client->selection, client->event, &occurred);
    if ((occurred.lNetworkEvents & (FD_READ | FD_CLOSE)) != 0 && !receive(client)) {
        drop(client, strerror(errno));
        return;
    }
    if ((occurred.lNetworkEvents & FD_CLOSE) != 0) {
        client->closing = true;
        client->selected = 0;  // the socket has left its event
    }
    advance(client);
}

Client *freeSlot() {
    for (int i = 0; i < settings.max_clients; ++i) {
        if (!clients[i].used) {
            return &clients[i];
        }
    }
    return nullptr;
}

}  // namespace

bool clientAdd(int socket) {
    Client *client = freeSlot();
    if (client == nullptr) {
        return false;
    }
    *client = {};
    const HANDLE event = vllCreateEvent(TRUE, FALSE, nullptr);
    if (event == 0) {
        return false;
    }
    client->socket = socket;
    client->event = event;
    client->last_active = now();
    if (vllWSAEventSelect(socket, event, FD_READ | FD_WRITE | FD_CLOSE, &client->selection) == SOCKET_ERROR ||
        !loopAdd(event, Turn::fair, networkEvent, client)) {
        vllCloseHandle(event);
        return false;
    }
    client->selected = FD_READ | FD_WRITE | FD_CLOSE;
    client->used = true;
    ++statistics.clients;
    return true;
}

void clientJobDone(Job *job) {
    Client *client = clientOfJob(job);
    client->busy = false;
    if (client->gone) {
        closeClient(client);
        return;
    }
    statistics.lines += job->lines - client->lines_before;
    advance(client);
}

void clientAnswer(Client *client, const char *text) {
    client->busy = false;
    if (client->gone) {
        closeClient(client);
        return;
    }
    answerDirectly(client, text);
    if (!client->offering) {
        advance(client);
    }
}

void clientsCheckIdle() {
    const time_t limit = now() - settings.idle_seconds;
    for (Client &client : clients) {
        if (client.used && !client.gone && !client.busy && client.last_active < limit) {
            drop(&client, "idle");
        }
    }
}

void clientsStop() {
    for (Client &client : clients) {
        if (client.used && !client.gone) {
            sendAnswer(&client);
            client.busy = false;
            closeClient(&client);
        }
    }
}
