// A client of the gateway that checks every answer. It is a plain socket program that does not use the library.
//
//   demo_client talk  PORT NAME LINES          sends LINES lines at once, and checks each answer
//   demo_client cut   PORT NAME LINES          the same, then leaves in the middle of a line
//   demo_client crowd PORT NAME CONNECTIONS    holds CONNECTIONS connections; one more must be refused
//
// Exit status 0 when every answer came and was right.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kTimeoutMs = 20000;  // without any progress
constexpr int kMaxCrowd = 100;
constexpr int kShown = 2;  // lines that are printed of each client
constexpr int kLine = 128;

int connectToPort(int port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
    if (socket == -1 || connect(socket, reinterpret_cast<sockaddr *>(&address), sizeof address) == -1) {
        perror("connect");
        exit(1);
    }
    return socket;
}

// Line number i of a client, with its newline; the length.
int makeLine(char *line, const char *name, int i) {
    return snprintf(line, kLine, "%s says hello number %d, %.*s\n", name, i, i % 40,
                    "the quick brown fox jumps over the lazy dog");
}

int makeAnswer(char *answer, const char *name, int i) {
    char line[kLine];
    makeLine(line, name, i);
    const int length = snprintf(answer, kLine + 16, "%d %s", i, line);
    for (char *c = answer; *c != '\0'; ++c) {
        *c = static_cast<char>(toupper(static_cast<unsigned char>(*c)));
    }
    return length;
}

// Sends and checks at the same time, as far as the connection allows.
struct Talk {
    int socket;
    const char *name;
    int lines;
    int sent_lines = 0;
    char out[kLine];
    int out_length = 0;
    int out_sent = 0;
    int answers = 0;
    char expected[kLine + 16];
    int expected_length = 0;
    int matched = 0;
};

bool fail(const Talk &talk, const char *what) {
    fprintf(stderr, "%s: %s after %d lines sent, %d answered\n", talk.name, what, talk.sent_lines,
            talk.answers);
    return false;
}

bool sendSome(Talk *talk) {
    while (talk->out_sent < talk->out_length || talk->sent_lines < talk->lines) {
        if (talk->out_sent == talk->out_length) {
            talk->out_length = makeLine(talk->out, talk->name, ++talk->sent_lines);
            talk->out_sent = 0;
        }
        const ssize_t sent =
            send(talk->socket, talk->out + talk->out_sent,
                 static_cast<size_t>(talk->out_length - talk->out_sent), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent == -1) {
            return errno == EAGAIN || errno == EINTR || fail(*talk, strerror(errno));
        }
        talk->out_sent += static_cast<int>(sent);
    }
    return true;
}

void answerComplete(Talk *talk) {
    if (talk->answers <= kShown || talk->answers == talk->lines) {
        char line[kLine];
        makeLine(line, talk->name, talk->answers);
        printf("%-8s sent     %s%-8s answered %s", talk->name, line, talk->name, talk->expected);
    }
    talk->matched = talk->expected_length = 0;
}

bool checkSome(Talk *talk) {
    char in[4096];
    const ssize_t received = recv(talk->socket, in, sizeof in, MSG_DONTWAIT);
    if (received == -1) {
        return errno == EAGAIN || errno == EINTR || fail(*talk, strerror(errno));
    }
    if (received == 0) {
        return fail(*talk, "the connection was closed");
    }
    for (ssize_t i = 0; i < received; ++i) {
        if (talk->expected_length == 0) {
            if (talk->answers == talk->lines) {
                return fail(*talk, "too many answers");
            }
            talk->expected_length = makeAnswer(talk->expected, talk->name, ++talk->answers);
        }
        if (in[i] != talk->expected[talk->matched++]) {
            return fail(*talk, "wrong answer");
        }
        if (talk->matched == talk->expected_length) {
            answerComplete(talk);
        }
    }
    return true;
}

bool exchange(int socket, const char *name, int lines) {
    Talk talk = {};
    talk.socket = socket;
    talk.name = name;
    talk.lines = lines;
    while (talk.answers < lines || talk.expected_length != 0) {
        const bool unsent = talk.sent_lines < lines || talk.out_sent < talk.out_length;
        pollfd events = {socket, static_cast<short>(unsent ? POLLIN | POLLOUT : POLLIN), 0};
        if (poll(&events, 1, kTimeoutMs) <= 0) {
            return fail(talk, "no progress");
        }
        if ((events.revents & POLLOUT) != 0 && !sendSome(&talk)) {
            return false;
        }
        if ((events.revents & ~POLLOUT) != 0 && !checkSome(&talk)) {
            return false;
        }
    }
    printf("%-8s %d lines sent, %d answered\n", name, talk.sent_lines, talk.answers);
    return true;
}

// A connection over the limit gets one line and is closed.
bool expectRefusal(int port, const char *name) {
    const int socket = connectToPort(port);
    char text[64] = "";
    pollfd events = {socket, POLLIN, 0};
    const ssize_t length = poll(&events, 1, kTimeoutMs) == 1 ? recv(socket, text, sizeof text - 1, 0) : 0;
    close(socket);
    printf("%-8s one more connection was told: %s", name, length > 0 ? text : "nothing\n");
    return strcmp(text, "busy, try again later\n") == 0;
}

bool crowd(int port, const char *name, int connections) {
    int sockets[kMaxCrowd];
    bool good = true;
    for (int i = 0; i < connections; ++i) {
        sockets[i] = connectToPort(port);
        good = exchange(sockets[i], name, 1) && good;
    }
    good = good && expectRefusal(port, name);
    for (int i = 0; i < connections; ++i) {
        close(sockets[i]);
    }
    return good;
}

}  // namespace

int main(int argc, char **argv) {
    const int port = argc == 5 ? atoi(argv[2]) : 0;
    const int count = argc == 5 ? atoi(argv[4]) : 0;
    if (port <= 0 || count <= 0 || strlen(argv[3]) > 16) {
        fprintf(stderr, "usage: %s talk|cut|crowd PORT NAME COUNT\n", argv[0]);
        return 2;
    }
    setvbuf(stdout, nullptr, _IOFBF, 1 << 16);  // the lines of one client stay together
    if (strcmp(argv[1], "crowd") == 0) {
        return count <= kMaxCrowd && crowd(port, argv[3], count) ? 0 : 1;
    }
    const int socket = connectToPort(port);
    if (!exchange(socket, argv[3], count)) {
        return 1;
    }
    if (strcmp(argv[1], "cut") == 0) {
        if (send(socket, "half a li", 9, MSG_NOSIGNAL) != 9) {
            return 1;
        }
        printf("%-8s left in the middle of a line\n", argv[3]);
    }
    close(socket);
    return 0;
}
