// The listening socket, bound to loopback only, on a port that the kernel chooses.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "gateway.h"

namespace {

int listening = -1;
int spare = -1;  // closed for a moment when no descriptor is left, so that a connection can be refused
HANDLE event = 0;
WSASockData selection;

void refuse(int socket) {
    static const char kBusy[] = "busy, try again later\n";
    send(socket, kBusy, sizeof kBusy - 1, MSG_NOSIGNAL | MSG_DONTWAIT);
    close(socket);
    ++statistics.refused;
}

// Without a free descriptor the connection could not be accepted, and would wake the loop again and again.
void refuseWithSpare() {
    close(spare);
    const int socket = accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket != -1) {
        refuse(socket);
    }
    spare = open("/dev/null", O_RDONLY | O_CLOEXEC);
}

void acceptClients(void *) {
    WSANETWORKEVENTS occurred;
    vllWSAEnumNetworkEvents(&selection, event, &occurred);
    for (;;) {
        const int socket = accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
        if (socket == -1) {
            if (errno == EMFILE || errno == ENFILE) {
                refuseWithSpare();
            }
            return;
        }
        if (!clientAdd(socket)) {
            refuse(socket);
        }
    }
}

// The port, or -1.
int openPort() {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    listening = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listening == -1 || bind(listening, reinterpret_cast<sockaddr *>(&address), length) == -1 ||
        listen(listening, SOMAXCONN) == -1 ||
        getsockname(listening, reinterpret_cast<sockaddr *>(&address), &length) == -1) {
        return -1;
    }
    return ntohs(address.sin_port);
}

// Renamed into place, so that a program that waits for the file never reads half of it.
bool writePortFile(int port) {
    char temporary[4096];
    if (snprintf(temporary, sizeof temporary, "%s.new", settings.port_file) >=
        static_cast<int>(sizeof temporary)) {
        return false;
    }
    FILE *file = fopen(temporary, "we");
    if (file == nullptr) {
        return false;
    }
    const bool written = fprintf(file, "%d\n", port) > 0;
    return fclose(file) == 0 && written && rename(temporary, settings.port_file) == 0;
}

}  // namespace

bool listenerStart() {
    const int port = openPort();
    spare = open("/dev/null", O_RDONLY | O_CLOEXEC);
    event = vllCreateEvent(TRUE, FALSE, nullptr);
    if (port == -1 || spare == -1 || event == 0 ||
        vllWSAEventSelect(listening, event, FD_ACCEPT, &selection) == SOCKET_ERROR ||
        !loopAdd(event, Turn::fair, acceptClients, nullptr)) {
        return false;
    }
    report("listening on 127.0.0.1:%d", port);
    return settings.port_file == nullptr || writePortFile(port);
}

void listenerStop() {
    if (event != 0) {
        loopRemove(event);
        vllWSAEventSelect(listening, event, 0, &selection);
        vllCloseHandle(event);
    }
    const int descriptors[] = {listening, spare};
    for (const int fd : descriptors) {
        if (fd != -1) {
            close(fd);
        }
    }
}
