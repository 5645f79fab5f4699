// The gateway: a small line server, written as a Win32 program would be.
//
// One loop waits on everything (loop.cpp); each object is added with the function to call when it is signalled. Only
// the loop's thread uses the clients; a worker gets nothing of a client but its job. No memory is allocated.
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
    unsigned refused;  // because all places were taken
    unsigned lines;    // answered
    unsigned cut;      // clients that left in mid-line
    unsigned dropped;  // idle, broken or talking too long
    unsigned beats;
};

extern Settings settings;
extern Statistics statistics;

// Prints a line on standard output and passes it to the pieces. For the loop's thread only.
void report(const char *format, ...) VLL_PRINTF(1, 2);

// Makes the gateway end. May be called by any thread.
void requestStop();

// Reads the settings in the section "gateway" of a profile file: clients, workers, heartbeat, idle, verbose.
// False, with a message, when it cannot be read or a number is out of its range.
bool profileRead(const char *file);

// ---- the loop (loop.cpp) ----------------------------------------------------------------------------------

// Urgent sources are handled first. The others take turns, so that a busy one does not delay the rest for ever.
enum class Turn { urgent, fair };

// Calls ready(context) whenever the object is signalled. False when the wait holds as many objects as it can.
bool loopAdd(HANDLE object, Turn turn, void (*ready)(void *context), void *context);
void loopRemove(HANDLE object);
// Runs until loopEnd(). False when waiting failed.
bool loopRun();
void loopEnd();

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
    unsigned lines;  // answered so far; the worker adds its own
    char answer[kJobAnswer];
    int answer_length;
};

bool workersStart();
// Hands over a job; it comes back through clientJobDone().
void workersSubmit(Job *job);
// Lets the workers finish their jobs, and waits for their end. False when one did not end.
bool workersStop();

// ---- clients (client.cpp) and where they come from (listener.cpp) -----------------------------------------

struct Client;

bool listenerStart();
void listenerStop();

// Takes a connection over. False when no place is free; the socket is then still the caller's to close.
bool clientAdd(int socket);
void clientJobDone(Job *job);
// Answers a line that a piece took. The text is cut at what a job can hold.
void clientAnswer(Client *client, const char *text);
// Drops the clients that have been idle for too long.
void clientsCheckIdle();
// Sends what can be sent at once, and closes all.
void clientsStop();

// ---- further pieces (pieces.cpp) --------------------------------------------------------------------------

// A piece lives in a file of its own and is named in the table of pieces.cpp. Any routine may be null. All are
// called in the loop's thread.
struct Piece {
    const char *name;
    bool (*start)();                                    // before the loop; it may loopAdd()
    void (*stop)();                                     // after the loop, in reverse order
    void (*note)(const char *line);                     // every line that report() prints
    bool (*command)(Client *client, const char *line);  // a line with '!' first; true: clientAnswer() comes
};

bool piecesStart();
void piecesStop();
void piecesNote(const char *line);
bool piecesTakeCommand(Client *client, const char *line);

// ---- nothing leaked (audit.cpp) ---------------------------------------------------------------------------

// Remembers how many descriptors are open.
void auditBegin();
// True when as many are open again, and no handle is.
bool auditEnd();
