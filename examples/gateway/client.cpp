// One connection: what came in, what is being answered, what is still to be sent. Each step waits for the one
// after it: a client whose answers are not taken is not read from, so that a flood stays in the network.

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
    bool closing;   // the peer has closed: no event tells what is left to read
    bool ended;     // nothing more will be read
    bool skipping;  // the rest of a line that was too long
    int input_length;
    char input[kJobText];
};

namespace {

Client clients[kMaxClients];

Client *ClientOfJob(Job *job) {
    return reinterpret_cast<Client *>(reinterpret_cast<char *>(job) - offsetof(Client, job));
}

time_t Now() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

bool IsSending(const Client *client) {
    return !client->busy && client->sent < client->job.answer_length;
}

void Close(Client *client) {
    if (!client->gone) {
        LoopRemove(client->event);
        vllWSAEventSelect(client->socket, client->event, 0, &client->selection);
        vllCloseHandle(client->event);
        close(client->socket);
        client->gone = true;
    }
    client->used = client->busy;
}

void Drop(Client *client, const char *why) {
    ++statistics.dropped;
    Report("client %d dropped: %s", static_cast<int>(client - clients), why);
    Close(client);
}

// Sends what it can. False when the connection is broken.
bool Send(Client *client) {
    while (IsSending(client)) {
        const WSABUF rest = {client->job.answer + client->sent,
                             static_cast<SIZE_T>(client->job.answer_length - client->sent)};
        DWORD sent = 0;
        if (vllWSASend(client->socket, &rest, 1, &sent) == SOCKET_ERROR) {
            return errno == EAGAIN || errno == EINTR;
        }
        client->sent += static_cast<int>(sent);
        client->last_active = Now();
    }
    return true;
}

// Reads once, as far as there is room. False when the connection is broken.
bool Receive(Client *client) {
    const auto room = static_cast<size_t>(kJobText - client->input_length);
    if (client->ended || room == 0) {
        return true;
    }
    const ssize_t received = recv(client->socket, client->input + client->input_length, room, 0);
    if (received == -1) {
        client->ended = client->closing;
        return client->closing || errno == EAGAIN || errno == EINTR;
    }
    client->ended = received == 0;
    client->input_length += static_cast<int>(received);
    client->last_active = Now();
    return true;
}

// The length of the first line with its newline, or 0.
int FirstLine(const Client *client, int from) {
    const void *end = memchr(client->input + from, '\n', static_cast<size_t>(client->input_length - from));
    return end == nullptr ? 0 : static_cast<int>(static_cast<const char *>(end) - client->input) + 1 - from;
}

void TakeInput(Client *client, int length) {
    client->input_length -= length;
    memmove(client->input, client->input + length, static_cast<size_t>(client->input_length));
}

// Offers the first line to the pieces; what none takes is a line like others.
void OfferCommand(Client *client, int length) {
    Job *job = &client->job;
    memcpy(job->text, client->input, static_cast<size_t>(length));
    TakeInput(client, length);
    job->text[length - 1] = '\0';
    client->offering = true;
    const bool taken = PiecesTakeCommand(client, job->text);
    client->offering = false;
    if (!taken) {
        job->text[length - 1] = '\n';
        job->length = length;
        WorkersSubmit(job);
    }
}

// The length of the whole lines that can go into one job, up to the next command.
int Batch(const Client *client) {
    int length = FirstLine(client, 0);
    for (int lines = 1; lines < kJobLines; ++lines) {
        if (length == client->input_length || client->input[length] == '!') {
            break;
        }
        length += FirstLine(client, length);
    }
    return length;
}

// Hands the whole lines that are there to a worker, or a command to the piece that takes it.
void HandOver(Client *client) {
    client->busy = true;
    client->lines_before = client->job.lines;
    client->job.answer_length = 0;
    client->sent = 0;
    if (client->input[0] == '!') {
        OfferCommand(client, FirstLine(client, 0));
        return;
    }
    Job *job = &client->job;
    job->length = Batch(client);
    memcpy(job->text, client->input, static_cast<size_t>(job->length));
    TakeInput(client, job->length);
    WorkersSubmit(job);
}

// Listens for what the client can use now. Selecting anew also asks for the next room to write.
void Select(Client *client) {
    int32_t wanted = 0;
    if (!client->ended && !client->closing) {
        wanted = FD_WRITE | FD_CLOSE | (client->input_length < kJobText ? FD_READ : 0);
    } else if (IsSending(client)) {
        wanted = FD_WRITE;
    }
    if (wanted != client->selected) {
        vllWSAEventSelect(client->socket, client->event, wanted, &client->selection);
        client->selected = wanted;
    } else if (IsSending(client)) {
        vllWSAEnableWriteEvent(&client->selection);
    }
}

void AnswerDirectly(Client *client, const char *text) {
    Job *job = &client->job;
    const int length = snprintf(job->answer, sizeof job->answer, "%u %s\n", ++job->lines, text);
    job->answer_length = length < kJobAnswer ? length : kJobAnswer - 1;
    job->answer[job->answer_length - 1] = '\n';
    client->sent = 0;
    ++statistics.lines;
}

// Drops what belongs to a line that was too long.
void Skip(Client *client) {
    const int rest = FirstLine(client, 0);
    TakeInput(client, rest > 0 ? rest : client->input_length);
    client->skipping = rest == 0;
}

// The next step with what came in. False when there is nothing to do before more comes.
bool UseInput(Client *client) {
    if (client->skipping) {
        Skip(client);
    }
    if (FirstLine(client, 0) > 0) {
        HandOver(client);
    } else if (client->input_length == kJobText) {
        AnswerDirectly(client, "error: line too long");
        client->skipping = true;
    } else {
        return false;
    }
    return true;
}

// Does whatever can be done now. The client may be gone afterwards.
void Advance(Client *client) {
    for (;;) {
        if (!Send(client)) {
            Drop(client, strerror(errno));
            return;
        }
        if (client->busy || IsSending(client)) {
            break;
        }
        if (!UseInput(client)) {
            if (client->ended) {
                statistics.cut += client->input_length > 0 ? 1 : 0;
                Close(client);
                return;
            }
            if (!client->closing) {
                break;
            }
            Receive(client);
        }
    }
    Select(client);
}

void NetworkEvent(void *context) {
    auto *client = static_cast<Client *>(context);
    WSANETWORKEVENTS occurred;
    vllWSAEnumNetworkEvents(&client->selection, client->event, &occurred);
    if ((occurred.lNetworkEvents & (FD_READ | FD_CLOSE)) != 0 && !Receive(client)) {
        Drop(client, strerror(errno));
        return;
    }
    if ((occurred.lNetworkEvents & FD_CLOSE) != 0) {
        client->closing = true;
        client->selected = 0;  // the socket has left its event
    }
    Advance(client);
}

Client *FreeSlot() {
    for (int i = 0; i < settings.max_clients; ++i) {
        if (!clients[i].used) {
            return &clients[i];
        }
    }
    return nullptr;
}

}  // namespace

bool ClientAdd(int socket) {
    Client *client = FreeSlot();
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
    client->last_active = Now();
    if (vllWSAEventSelect(socket, event, FD_READ | FD_WRITE | FD_CLOSE, &client->selection) == SOCKET_ERROR ||
        !LoopAdd(event, Turn::fair, NetworkEvent, client)) {
        vllCloseHandle(event);
        return false;
    }
    client->selected = FD_READ | FD_WRITE | FD_CLOSE;
    client->used = true;
    ++statistics.clients;
    return true;
}

void ClientJobDone(Job *job) {
    Client *client = ClientOfJob(job);
    client->busy = false;
    if (client->gone) {
        Close(client);
        return;
    }
    statistics.lines += job->lines - client->lines_before;
    Advance(client);
}

void ClientAnswer(Client *client, const char *text) {
    client->busy = false;
    if (client->gone) {
        Close(client);
        return;
    }
    AnswerDirectly(client, text);
    if (!client->offering) {
        Advance(client);
    }
}

void ClientsCheckIdle() {
    const time_t limit = Now() - settings.idle_seconds;
    for (Client &client : clients) {
        if (client.used && !client.gone && !client.busy && client.last_active < limit) {
            Drop(&client, "idle");
        }
    }
}

void ClientsStop() {
    for (Client &client : clients) {
        if (client.used && !client.gone) {
            Send(&client);
            client.busy = false;
            Close(&client);
        }
    }
}
