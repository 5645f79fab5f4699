// A client of the gateway that checks every answer. A plain socket program: it stands for the rest of the world.
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

int Connect(int port) {
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
int MakeLine(char *line, const char *name, int i) {
    return snprintf(line, kLine, "%s says hello number %d, %.*s\n", name, i, i % 40,
                    "the quick brown fox jumps over the lazy dog");
}

int MakeAnswer(char *answer, const char *name, int i) {
    char line[kLine];
    MakeLine(line, name, i);
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

bool Fail(const Talk &talk, const char *what) {
    fprintf(stderr, "%s: %s after %d lines sent, %d answered\n", talk.name, what, talk.sent_lines,
            talk.answers);
    return false;
}

bool SendSome(Talk *talk) {
    while (talk->out_sent < talk->out_length || talk->sent_lines < talk->lines) {
        if (talk->out_sent == talk->out_length) {
            talk->out_length = MakeLine(talk->out, talk->name, ++talk->sent_lines);
            talk->out_sent = 0;
        }
        const ssize_t sent =
            send(talk->socket, talk->out + talk->out_sent,
                 static_cast<size_t>(talk->out_length - talk->out_sent), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent == -1) {
            return errno == EAGAIN || errno == EINTR || Fail(*talk, strerror(errno));
        }
        talk->out_sent += static_cast<int>(sent);
    }
    return true;
}

void AnswerComplete(Talk *talk) {
    if (talk->answers <= kShown || talk->answers == talk->lines) {
        char line[kLine];
        MakeLine(line, talk->name, talk->answers);
        printf("%-8s sent     %s%-8s answered %s", talk->name, line, talk->name, talk->expected);
    }
    talk->matched = talk->expected_length = 0;
}

bool CheckSome(Talk *talk) {
    char in[4096];
    const ssize_t received = recv(talk->socket, in, sizeof in, MSG_DONTWAIT);
    if (received == -1) {
        return errno == EAGAIN || errno == EINTR || Fail(*talk, strerror(errno));
    }
    if (received == 0) {
        return Fail(*talk, "the connection was closed");
    }
    for (ssize_t i = 0; i < received; ++i) {
        if (talk->expected_length == 0) {
            if (talk->answers == talk->lines) {
                return Fail(*talk, "too many answers");
            }
            talk->expected_length = MakeAnswer(talk->expected, talk->name, ++talk->answers);
        }
        if (in[i] != talk->expected[talk->matched++]) {
            return Fail(*talk, "wrong answer");
        }
        if (talk->matched == talk->expected_length) {
            AnswerComplete(talk);
        }
    }
    return true;
}

bool Exchange(int socket, const char *name, int lines) {
    Talk talk = {};
    talk.socket = socket;
    talk.name = name;
    talk.lines = lines;
    while (talk.answers < lines || talk.expected_length != 0) {
        const bool unsent = talk.sent_lines < lines || talk.out_sent < talk.out_length;
        pollfd events = {socket, static_cast<short>(unsent ? POLLIN | POLLOUT : POLLIN), 0};
        if (poll(&events, 1, kTimeoutMs) <= 0) {
            return Fail(talk, "no progress");
        }
        if ((events.revents & POLLOUT) != 0 && !SendSome(&talk)) {
            return false;
        }
        if ((events.revents & ~POLLOUT) != 0 && !CheckSome(&talk)) {
            return false;
        }
    }
    printf("%-8s %d lines sent, %d answered\n", name, talk.sent_lines, talk.answers);
    return true;
}

// A connection over the limit gets one line and is closed.
bool ExpectRefusal(int port, const char *name) {
    const int socket = Connect(port);
    char text[64] = "";
    pollfd events = {socket, POLLIN, 0};
    const ssize_t length = poll(&events, 1, kTimeoutMs) == 1 ? recv(socket, text, sizeof text - 1, 0) : 0;
    close(socket);
    printf("%-8s one more connection was told: %s", name, length > 0 ? text : "nothing\n");
    return strcmp(text, "busy, try again later\n") == 0;
}

bool Crowd(int port, const char *name, int connections) {
    int sockets[kMaxCrowd];
    bool good = true;
    for (int i = 0; i < connections; ++i) {
        sockets[i] = Connect(port);
        good = Exchange(sockets[i], name, 1) && good;
    }
    good = good && ExpectRefusal(port, name);
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
        return count <= kMaxCrowd && Crowd(port, argv[3], count) ? 0 : 1;
    }
    const int socket = Connect(port);
    if (!Exchange(socket, argv[3], count)) {
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
