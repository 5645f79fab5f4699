// The listening socket: loopback only, on a port that the kernel gives.

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
int spare = -1;  // given up for a moment when no descriptor is left, to be able to refuse
HANDLE event = 0;
WSASockData selection;

void Refuse(int socket) {
    static const char kBusy[] = "busy, try again later\n";
    send(socket, kBusy, sizeof kBusy - 1, MSG_NOSIGNAL | MSG_DONTWAIT);
    close(socket);
    ++statistics.refused;
}

// Out of descriptors the connection would stay, and wake the loop for ever.
void RefuseWithSpare() {
    close(spare);
    const int socket = accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket != -1) {
        Refuse(socket);
    }
    spare = open("/dev/null", O_RDONLY | O_CLOEXEC);
}

void AcceptClients(void *) {
    WSANETWORKEVENTS occurred;
    vllWSAEnumNetworkEvents(&selection, event, &occurred);
    for (;;) {
        const int socket = accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
        if (socket == -1) {
            if (errno == EMFILE || errno == ENFILE) {
                RefuseWithSpare();
            }
            return;
        }
        if (!ClientAdd(socket)) {
            Refuse(socket);
        }
    }
}

// The port, or -1.
int OpenPort() {
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

// Whoever waits for the file must not see it half written.
bool WritePortFile(int port) {
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

bool ListenerStart() {
    const int port = OpenPort();
    spare = open("/dev/null", O_RDONLY | O_CLOEXEC);
    event = vllCreateEvent(TRUE, FALSE, nullptr);
    if (port == -1 || spare == -1 || event == 0 ||
        vllWSAEventSelect(listening, event, FD_ACCEPT, &selection) == SOCKET_ERROR ||
        !LoopAdd(event, Turn::fair, AcceptClients, nullptr)) {
        return false;
    }
    Report("listening on 127.0.0.1:%d", port);
    return settings.port_file == nullptr || WritePortFile(port);
}

void ListenerStop() {
    if (event != 0) {
        LoopRemove(event);
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
