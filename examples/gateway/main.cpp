// The settings, and how the gateway starts, runs and stops.

#include <signal.h>
#include <unistd.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "gateway.h"

Settings settings = {kMaxClients, 4, 1, 300, nullptr, nullptr, false, false};
Statistics statistics;

namespace {

constexpr int64_t kUnitsPerSecond = 10000000;  // a timer counts 100 ns

HANDLE stop_event = 0;
int stop_fd = -1;
HANDLE heartbeat = 0;

// A signal handler must not call vllSetEvent(), but may write to the event's descriptor.
void onSignal(int) {
    const int saved_errno = errno;
    const uint64_t one = 1;
    if (write(stop_fd, &one, sizeof one) == -1) {
        _exit(2);
    }
    errno = saved_errno;
}

void catchSignals() {
    struct sigaction action = {};
    action.sa_handler = onSignal;
    action.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);
}

void stop(void *) {
    report("stopping");
    loopEnd();
}

void beat(void *) {
    ++statistics.beats;
    clientsCheckIdle();
    if (settings.verbose) {
        report("heartbeat %u: %u clients, %u lines", statistics.beats, statistics.clients, statistics.lines);
    }
    vllSetWaitableTimer(heartbeat, settings.heartbeat_seconds * kUnitsPerSecond);
}

bool start() {
    stop_event = vllCreateEvent(TRUE, FALSE, nullptr);
    heartbeat = vllCreateWaitableTimer(nullptr);
    if (stop_event == 0 || heartbeat == 0) {
        return false;
    }
    stop_fd = vllGetEventFd(stop_event);
    catchSignals();
    return loopAdd(stop_event, Turn::urgent, stop, nullptr) &&
           loopAdd(heartbeat, Turn::urgent, beat, nullptr) &&
           vllSetWaitableTimer(heartbeat, settings.heartbeat_seconds * kUnitsPerSecond) && piecesStart() &&
           workersStart() && listenerStart();
}

bool finish() {
    listenerStop();
    const bool workers_ended = workersStop();
    clientsStop();
    report("%u clients, %u lines answered, %u cut in mid-line, %u dropped, %u refused", statistics.clients,
           statistics.lines, statistics.cut, statistics.dropped, statistics.refused);
    piecesStop();
    signal(SIGTERM, SIG_IGN);
    signal(SIGINT, SIG_IGN);
    vllCloseHandle(heartbeat);
    vllCloseHandle(stop_event);
    return workers_ended;
}

bool parseNumber(const char *text, int low, int high, int *value) {
    char *end;
    errno = 0;
    const long number = strtol(text, &end, 10);
    if (errno != 0 || *text == '\0' || *end != '\0' || number < low || number > high) {
        return false;
    }
    *value = static_cast<int>(number);
    return true;
}

bool parseOptions(int argc, char **argv) {
    for (int i = 1; i < argc; ++i) {
        const char *value = i + 1 < argc ? argv[i + 1] : "";
        bool good = true;
        if (strcmp(argv[i], "--verbose") == 0) {
            settings.verbose = true;
            continue;
        }
        if (strcmp(argv[i], "--commands") == 0) {
            settings.commands = true;
            continue;
        }
        if (strcmp(argv[i], "--port-file") == 0) {
            settings.port_file = value;
            good = *value != '\0';
        } else if (strcmp(argv[i], "--log") == 0) {
            settings.log_file = value;
            good = *value != '\0';
        } else if (strcmp(argv[i], "--profile") == 0) {
            good = profileRead(value);
        } else if (strcmp(argv[i], "--clients") == 0) {
            good = parseNumber(value, 1, kMaxClients, &settings.max_clients);
        } else if (strcmp(argv[i], "--workers") == 0) {
            good = parseNumber(value, 1, kMaxWorkers, &settings.workers);
        } else if (strcmp(argv[i], "--heartbeat") == 0) {
            good = parseNumber(value, 1, 3600, &settings.heartbeat_seconds);
        } else if (strcmp(argv[i], "--idle") == 0) {
            good = parseNumber(value, 1, 86400, &settings.idle_seconds);
        } else {
            good = false;
        }
        if (!good) {
            fprintf(stderr,
                    "usage: %s [--profile FILE] [--port-file FILE] [--log FILE] [--clients 1-%d] [--workers "
                    "1-%d] "
                    "[--heartbeat SECONDS] [--idle SECONDS] [--commands] [--verbose]\n",
                    argv[0], kMaxClients, kMaxWorkers);
            return false;
        }
        ++i;
    }
    return true;
}

}  // namespace

void report(const char *format, ...) {
    char line[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    printf("gateway: %s\n", line);
    fflush(stdout);
    piecesNote(line);
}

void requestStop() {
    vllSetEvent(stop_event);
}

int main(int argc, char **argv) {
    vllvwincompatMain();
    if (!parseOptions(argc, argv)) {
        return 2;
    }
    auditBegin();
    bool good = start();
    if (good) {
        good = loopRun();
    }
    if (!good) {
        report("failed: %s", strerror(errno));
    }
    good = finish() && good;
    good = auditEnd() && good;
    vllvwincompatExit();
    return good ? 0 : 1;
}
