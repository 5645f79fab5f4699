// The steps of descriptor sharing that are named in its protocol, and the fork handlers of its server.
#pragma once

#include "base/fork_handlers.h"
#include "vwincompat/types.h"

extern const ForkHandlers kDescriptorServerForkHandlers;

// Opens the server's socket, if no other process has the address, and starts the server thread: TRUE when the thread was
// started.
BOOL vlliStartSharingFdServer();

// The server thread's start routine. Serves until it is cancelled or accept() fails.
uint32_t vlliServerFunction(LPVOID unused);

// Reads one request and answers it: TRUE when the response could be sent.
BOOL vlliProcessClient(int socket);

// Sends the response: a status, and with status 0 a descriptor.
BOOL vlliSendFileDescriptor(int socket, int descriptor, int32_t status);

// Receives a response: the descriptor, or -1 with errno.
int vlliReceiveFileDescriptor(int socket);
