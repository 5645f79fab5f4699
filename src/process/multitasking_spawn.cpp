// From fork() to the program. The parent plans everything; runChild() and what it calls are
// async-signal-safe.

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "base/failure.h"
#include "base/guards.h"
#include "process/multitasking.h"

namespace {

constexpr char kPathPrefix[] = "PATH=";
constexpr size_t kPathPrefixLength = sizeof kPathPrefix - 1;
const char *const kShell = "/bin/sh";

// How long a child that has failed waits for a busy log daemon.
constexpr timeval kLogTimeout = {2, 0};

size_t countEntries(char *const *vector) {
    size_t count = 0;
    while (vector != nullptr && vector[count] != nullptr) {
        ++count;
    }
    return count;
}

// The caller's environment with PATH replaced, or added.
bool planEnvironment(ChildPlan *plan) {
    const size_t count = countEntries(environ);
    plan->environment.reset(static_cast<char **>(malloc((count + 2) * sizeof(char *))));
    char **entry = plan->environment.get();
    if (entry == nullptr) {
        return false;
    }
    *entry++ = plan->path;
    for (size_t i = 0; i < count; ++i) {
        if (strncmp(environ[i], kPathPrefix, kPathPrefixLength) != 0) {
            *entry++ = environ[i];
        }
    }
    *entry = nullptr;
    return true;
}

// The PATH that the child searches; a system without one has a default.
const char *searchPath(const ChildPlan &plan, char *fallback, size_t size) {
    if (plan.environment != nullptr) {
        return plan.path + kPathPrefixLength;
    }
    const char *path = getenv("PATH");
    if (path == nullptr) {
        confstr(_CS_PATH, fallback, size);
        return fallback;
    }
    return path;
}

// Writes "element/name" for each element of the path; an empty element is the working directory.
char *joinCandidates(char *out, const char *path, const char *name, size_t name_size) {
    for (;;) {
        const size_t length = strcspn(path, ":");
        out = static_cast<char *>(mempcpy(out, path, length));
        if (length != 0) {
            *out++ = '/';
        }
        out = static_cast<char *>(mempcpy(out, name, name_size));
        if (path[length] == '\0') {
            return out;
        }
        path += length + 1;
    }
}

// ---- in the child ----

// Handlers belong to the program that is left behind; what is ignored stays so, as exec has it.
void dropHandlers() {
    for (int number = 1; number < NSIG; ++number) {
        struct sigaction action;
        if (sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_DFL &&
            action.sa_handler != SIG_IGN) {
            action.sa_handler = SIG_DFL;
            action.sa_flags = 0;
            sigaction(number, &action, nullptr);
        }
    }
}

char *append(char *out, const char *end, const char *text) {
    while (*text != '\0' && out < end) {
        *out++ = *text++;
    }
    return out;
}

char *appendNumber(char *out, const char *end, int number) {
    char digits[12];
    char *digit = digits + sizeof digits;
    *--digit = '\0';
    for (unsigned rest = static_cast<unsigned>(number); rest != 0 || *digit == '\0'; rest /= 10) {
        *--digit = static_cast<char>('0' + rest % 10);
    }
    return append(out, end, digit);
}

// Sends a line to the log daemon as syslog(3) does, without its lock.
void sendToLog(const char *line, size_t length) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, _PATH_LOG, sizeof _PATH_LOG);
    const auto *to = reinterpret_cast<const sockaddr *>(&address);
    close(STDIN_FILENO);  // the last thing that this child does: make room when descriptors have run out
    for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
        const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &kLogTimeout, sizeof kLogTimeout);
        if (connect(fd, to, sizeof address) == 0) {
            const size_t terminator = type == SOCK_STREAM ? 1 : 0;
            send(fd, line, length + terminator, MSG_NOSIGNAL);
            return;
        }
        const bool is_stream = errno == EPROTOTYPE;
        close(fd);
        if (!is_stream) {
            return;
        }
    }
}

[[noreturn]] void failChild(const ChildPlan &plan, const char *call, int error) {
    if (plan.logHead[0] != '\0') {
        char line[sizeof plan.logHead + 192];
        const char *end = line + sizeof line - 1;
        char *out = append(line, end, plan.logHead);
        out = append(out, end, "vllCreateProcess() - ");
        out = append(out, end, call);
        out = append(out, end, "() FAILED, errno = <");
        out = appendNumber(out, end, error);
        out = append(out, end, "> - <");
        const char *text = strerrordesc_np(error);
        out = append(out, end, text != nullptr ? text : "");
        out = append(out, end, ">");
        *out = '\0';
        sendToLog(line, static_cast<size_t>(out - line));
    }
    _exit(error);
}

// Errors after which execvp(3) looks at the next directory.
bool isNotThere(int error) {
    return error == ENOENT || error == ESTALE || error == ENOTDIR || error == ENODEV || error == ETIMEDOUT;
}

// Tries one file; returns only when it cannot be run.
void tryProgram(const ChildPlan &plan, char *file, char *const *environment) {
    execve(file, plan.arguments, environment);
    if (errno == ENOEXEC && plan.searched) {
        char *name = plan.arguments[0];
        plan.arguments[-1] = const_cast<char *>(kShell);
        plan.arguments[0] = file;
        execve(kShell, plan.arguments - 1, environment);
        plan.arguments[0] = name;
    }
}

// Runs the program; returns the error when it cannot.
int runProgram(const ChildPlan &plan) {
    char *const *environment = plan.environment != nullptr ? plan.environment.get() : environ;
    bool denied = false;
    char *file = plan.candidates.get();
    do {
        tryProgram(plan, file, environment);
        if (errno == EACCES) {
            denied = true;
        } else if (!isNotThere(errno)) {
            return errno;
        }
        file += strlen(file) + 1;
    } while (*file != '\0');
    return denied ? EACCES : errno;
}

[[noreturn]] void runChild(const ChildPlan &plan, const sigset_t &signals) {
    dropHandlers();
    pthread_sigmask(SIG_SETMASK, &signals, nullptr);
    if (plan.directory != nullptr && chdir(plan.directory) == -1) {
        failChild(plan, "chdir", errno);
    }
    failChild(plan, "exec", runProgram(plan));
}

}  // namespace

BlockSignals::BlockSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
}

BlockSignals::~BlockSignals() {
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

bool vlliPlanArguments(ChildPlan *plan, size_t count) {
    plan->slots.reset(static_cast<char **>(malloc((count + 2) * sizeof(char *))));
    if (plan->slots == nullptr) {
        return false;
    }
    plan->arguments = plan->slots.get() + 1;
    return true;
}

bool vlliPlanDirectory(ChildPlan *plan, const char *directory) {
    const char *inherited = getenv("PATH");
    const bool alone = inherited == nullptr || *inherited == '\0';
    const int length = snprintf(plan->path, sizeof plan->path, "%s%s%s%s", kPathPrefix,
                                alone ? "" : inherited, alone ? "" : ":", directory);
    if (length < 0 || static_cast<size_t>(length) >= sizeof plan->path) {
        return Fail(ENAMETOOLONG);
    }
    plan->directory = directory;
    return planEnvironment(plan);
}

bool vlliPlanProgram(ChildPlan *plan, const char *program) {
    char fallback[64] = "";
    const char *path = "";
    size_t elements = 1;
    const size_t name_size = strlen(program) + 1;
    plan->searched = *program != '/';
    // What has a slash is a path, and what is longer than any file name is found nowhere.
    if (strchr(program, '/') == nullptr && name_size > 1 && name_size <= NAME_MAX + 1) {
        path = searchPath(*plan, fallback, sizeof fallback);
        elements += static_cast<size_t>(std::count(path, path + strlen(path), ':'));
    }
    plan->candidates.reset(static_cast<char *>(malloc(strlen(path) + elements * (name_size + 1) + 1)));
    if (plan->candidates == nullptr) {
        return false;
    }
    *joinCandidates(plan->candidates.get(), path, program, name_size) = '\0';
    return true;
}

void vlliPlanLog(ChildPlan *plan) {
    static constexpr const char *kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const time_t now = time(nullptr);
    struct tm date = {};
    localtime_r(&now, &date);
    snprintf(plan->logHead, sizeof plan->logHead, "<%d>%s %2d %02d:%02d:%02d %.64s: ", LOG_USER | LOG_ERR,
             kMonths[date.tm_mon], date.tm_mday, date.tm_hour, date.tm_min, date.tm_sec,
             program_invocation_short_name);
}

pid_t vlliForkChild(const ChildPlan &plan, const BlockSignals &blocked) {
    const NoCancel no_cancel;  // in the child too: a cancel that is pending here must not end it half-way
    const pid_t pid = fork();
    if (pid == 0) {
        runChild(plan, blocked.before());
    }
    return pid;
}
