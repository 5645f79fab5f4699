// The gateway: a small line server, written as a Win32 program would be.
//
// One loop waits on everything (loop.cpp); what it waits for is added with a function to call. Clients belong to
// the loop's thread alone; a worker sees nothing of a client but the job it was handed. All memory is fixed.
#pragma once

#include <vwincompat.h>

// ---- settings (main.cpp) ----------------------------------------------------------------------------------

enum { kMaxClients = 40, kMaxWorkers = 8 };

struct Settings {
    int max_clients;  // at most kMaxClients: each takes a wait object and three descriptors
    int workers;      // at most kMaxWorkers
    int heartbeat_seconds;
    int idle_seconds;       // a client that neither sends nor takes anything for so long is dropped
    const char *port_file;  // where the port is written, or null
    const char *log_file;   // what is reported goes there, too (log_writer.cpp); or null
    bool verbose;
    bool commands;  // clients may run programs
};

struct Statistics {
    unsigned clients;  // served
    unsigned refused;  // for want of room
    unsigned lines;    // answered
    unsigned cut;      // clients that left in mid-line
    unsigned dropped;  // idle, broken or talking too long
    unsigned beats;
};

extern Settings settings;
extern Statistics statistics;

// Says something on standard output, and to the pieces that listen. Loop's thread only.
void Report(const char *format, ...) VLL_PRINTF(1, 2);

// Asks the gateway to end. Any thread.
void RequestStop();

// Takes the settings that a profile file has in its section "gateway": clients, workers, heartbeat, idle, verbose.
// False, with a message, when it cannot be read or a number is out of its range.
bool ProfileRead(const char *file);

// ---- the loop (loop.cpp) ----------------------------------------------------------------------------------

// Urgent sources are looked at first; the others take turns, so that a busy one starves nobody.
enum class Turn { urgent, fair };

// Calls ready(context) whenever the object is signalled. False when the wait has no room.
bool LoopAdd(HANDLE object, Turn turn, void (*ready)(void *context), void *context);
void LoopRemove(HANDLE object);
// Runs until LoopEnd(). False when waiting failed.
bool LoopRun();
void LoopEnd();

// ---- work for the workers (workers.cpp) -------------------------------------------------------------------

enum {
    kJobText = 4096,
    kJobLines = 64,
    kCountDigits = 10,
    kJobAnswer = kJobText + kJobLines * (kCountDigits + 2)
};

// Some lines of one client, and the answers to them.
struct Job {
    Job *next;
    char text[kJobText];  // whole lines, each with its newline
    int length;
    unsigned lines;  // answered before; counted on by the worker
    char answer[kJobAnswer];
    int answer_length;
};

bool WorkersStart();
// Hands over a job; it comes back through ClientJobDone().
void WorkersSubmit(Job *job);
// Lets the workers finish what they have, and waits for them. False when one did not end.
bool WorkersStop();

// ---- clients (client.cpp) and where they come from (listener.cpp) -----------------------------------------

struct Client;

bool ListenerStart();
void ListenerStop();

// Takes a connection over. False when there is no room; the socket is then still the caller's.
bool ClientAdd(int socket);
void ClientJobDone(Job *job);
// Answers a line that a piece took. The text is cut at what a job can hold.
void ClientAnswer(Client *client, const char *text);
// Drops the clients that have been idle for too long.
void ClientsCheckIdle();
// Sends what can be sent at once, and closes all.
void ClientsStop();

// ---- further pieces (pieces.cpp) --------------------------------------------------------------------------

// A piece lives in a file of its own and is named in the table of pieces.cpp. Any routine may be null. All are
// called in the loop's thread.
struct Piece {
    const char *name;
    bool (*start)();                                    // before the loop; it may LoopAdd()
    void (*stop)();                                     // after the loop, in reverse order
    void (*note)(const char *line);                     // what Report() says
    bool (*command)(Client *client, const char *line);  // a line with '!' first; true: ClientAnswer() comes
};

bool PiecesStart();
void PiecesStop();
void PiecesNote(const char *line);
bool PiecesTakeCommand(Client *client, const char *line);

// ---- nothing leaked (audit.cpp) ---------------------------------------------------------------------------

// Remembers how many descriptors are open.
void AuditBegin();
// True when as many are open again, and no handle is.
bool AuditEnd();
