#include "support/syslog_capture.h"
#include "base/failure.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

namespace {

int listener = -1;
std::map<int, std::string> pending;  // unread bytes by connection

void die(const char *what) {
    perror(what);
    abort();
}

// Parses a line as it is sent: "<priority>Mmm dd hh:mm:ss ident: text".
LogLine parseLine(const std::string &line) {
    LogLine parsed = {LOG_PRI(atoi(line.c_str() + 1)), line};
    // Lines that syslog(3) sends have the ident of openlog(); others have the program's name.
    for (const std::string &ident :
         {std::string("vlltest: "), program_invocation_short_name + std::string(": ")}) {
        const size_t start = line.find(ident);
        if (start != std::string::npos) {
            parsed.text = line.substr(start + ident.size());
            break;
        }
    }
    return parsed;
}

bool isReadable(int fd) {
    pollfd poll_fd = {fd, POLLIN, 0};
    return poll(&poll_fd, 1, 0) == 1;
}

// False once the other side has closed.
bool readConnection(int fd, std::string *bytes, std::vector<LogLine> *lines) {
    char buffer[4096];
    ssize_t length;
    while ((length = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT)) > 0) {
        bytes->append(buffer, static_cast<size_t>(length));
    }
    size_t end;
    while ((end = bytes->find('\0')) != std::string::npos) {
        lines->push_back(parseLine(bytes->substr(0, end)));
        bytes->erase(0, end + 1);
    }
    return length != 0;
}

}  // namespace

// A stream socket: the kernel keeps what is sent to it until it is read, so no thread has to read all the time.
void startSyslogCapture() {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/dev/log");
    listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener == -1 || bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) == -1 ||
        listen(listener, 64) == -1) {
        die("/dev/log");
    }
    openlog("vlltest", LOG_NDELAY, LOG_USER);
    takeLog();
}

std::vector<LogLine> takeLog() {
    const KeepErrno keep_errno;  // a test may check the last error after it has read the log
    std::vector<LogLine> lines;
    while (isReadable(listener)) {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd == -1) {
            die("accept4");
        }
        pending[fd];
    }
    for (auto it = pending.begin(); it != pending.end();) {
        if (readConnection(it->first, &it->second, &lines)) {
            ++it;
        } else {
            close(it->first);
            it = pending.erase(it);
        }
    }
    return lines;
}

std::vector<std::string> takeErrors() {
    std::vector<std::string> errors;
    for (const LogLine &line : takeLog()) {
        if (line.priority == LOG_ERR && line.text.compare(0, 12, "VLL: STACK: ") != 0) {
            errors.push_back(line.text);
        }
    }
    return errors;
}
