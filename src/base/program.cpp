// Running programs in child processes. Everything from runChild() to the functions that it calls runs in the child,
// in the caller's memory, while other threads of the caller go on: it is async-signal-safe and allocates nothing.

#include "base/program.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "base/blocking.h"
#include "base/descriptor.h"
#include "base/failure.h"
#include "base/file_lock.h"
#include "base/guards.h"

namespace {

constexpr char kPathPrefix[] = "PATH=";
constexpr size_t kPathPrefixLength = sizeof kPathPrefix - 1;
char shell[] = "/bin/sh";

// ThreadSanitizer stands in front of clone(2) and takes every child for a forked one. There the child gets a copy of
// the memory, and what it reports goes through a shared mapping.
#if defined(__SANITIZE_THREAD__)
constexpr int kCloneFlags = CLONE_VFORK;
constexpr int kStackFlags = MAP_SHARED;
#else
constexpr int kCloneFlags = CLONE_VM | CLONE_VFORK;
constexpr int kStackFlags = MAP_PRIVATE;
#endif

size_t countEntries(char *const *vector) {
    size_t count = 0;
    while (vector != nullptr && vector[count] != nullptr) {
        ++count;
    }
    return count;
}

// The PATH that the child is searched along. A system without one has a default.
const char *searchPath(const ChildPlan &plan, char *fallback, size_t size) {
    const char *path = plan.path != nullptr ? plan.path : getenv("PATH");
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

// What the parent gives to the child, and what the child reports.
struct Launch {
    const ChildPlan *plan;
    const sigset_t *signals;
    int barrier;
    const char *failed_call;
    int error;
};

// Signals that have handlers go back to their default, since the handlers belong to the program that the child leaves.
// Ignored ones stay ignored, as exec has it.
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

// The kernel lets the parent go on a moment before it closes the child's close-on-exec descriptors: locks that belong to
// them would still count. So the child holds a record lock on a file until they are closed, and the parent waits for it. The
// kernel closes descriptors in ascending order; closing the file's, the highest, drops the lock.
void holdBarrier(int file) {
    constexpr rlim_t kHighest = 1024;
    rlimit limit;
    if (file == -1 || getrlimit(RLIMIT_NOFILE, &limit) == -1) {
        return;
    }
    int high = -1;
    for (auto number = static_cast<int>(std::min(limit.rlim_cur, kHighest)); high == -1 && number-- > file;) {
        high = fcntl(file, F_DUPFD_CLOEXEC, number);
    }
    if (high != -1) {
        close(file);  // before the lock is taken: closing any descriptor of the file would drop it
        file = high;
    }
    vlliLockFile(file, F_SETLK, F_WRLCK);
}

// Makes the planned descriptor the standard output; the descriptor itself is close-on-exec.
void redirectOutput(int output) {
    if (output == STDOUT_FILENO) {
        fcntl(output, F_SETFD, 0);
    } else if (output != -1) {
        dup2(output, STDOUT_FILENO);
    }
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
        plan.arguments[-1] = shell;
        plan.arguments[0] = file;
        execve(shell, plan.arguments - 1, environment);
        plan.arguments[0] = name;
    }
}

// Runs the program; returns the error when it cannot.
int execute(const ChildPlan &plan) {
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

// Returns, with the exit status, only when the program cannot be run.
int runChild(void *argument) {
    auto *launch = static_cast<Launch *>(argument);
    const ChildPlan &plan = *launch->plan;
    holdBarrier(launch->barrier);
    dropHandlers();
    pthread_sigmask(SIG_SETMASK, launch->signals, nullptr);
    redirectOutput(plan.output);
    const char *call = "chdir";
    int error = plan.directory != nullptr && chdir(plan.directory) == -1 ? errno : 0;
    if (error == 0) {
        call = "exec";
        error = execute(plan);
    }
    launch->failed_call = call;
    launch->error = error;
    return error;
}

// ---- in the parent ----

// The child's stack, with a Launch at its low end.
class ChildStack {
  public:
    ChildStack()
        : memory_(
              mmap(nullptr, kSize, PROT_READ | PROT_WRITE, kStackFlags | MAP_ANONYMOUS | MAP_STACK, -1, 0)) {}
    ~ChildStack() {
        if (*this) {
            munmap(memory_, kSize);
        }
    }
    ChildStack(const ChildStack &) = delete;
    ChildStack &operator=(const ChildStack &) = delete;

    explicit operator bool() const { return memory_ != MAP_FAILED; }
    Launch *launch(const ChildPlan &plan, const sigset_t &signals, int barrier) const {
        return new (memory_) Launch{&plan, &signals, barrier, nullptr, 0};
    }
    void *top() const { return static_cast<char *>(memory_) + kSize; }

  private:
    static constexpr size_t kSize = size_t{64} * 1024;
    void *memory_;
};

// A child whose end is waited for, also when the thread is cancelled before. Then the child gets a signal first, unless the
// signal is 0.
class WatchedChild {
  public:
    explicit WatchedChild(pid_t pid, int signal_when_cancelled)
        : pid_(pid), signal_when_cancelled_(signal_when_cancelled) {}
    ~WatchedChild() {
        if (pid_ != 0) {
            const NoCancel no_cancel;
            const KeepErrno keep_errno;
            kill(pid_, signal_when_cancelled_);
            int status;
            wait(&status);
        }
    }
    WatchedChild(const WatchedChild &) = delete;
    WatchedChild &operator=(const WatchedChild &) = delete;

    bool wait(int *status) {
        const pid_t result = vlliRetryOnEintr([&] { return vlliBlockInWaitpid(pid_, status, 0); });
        pid_ = 0;
        return result != -1;
    }

  private:
    pid_t pid_;
    const int signal_when_cancelled_;
};

// Reads to the end of the first line, or until the buffer is full: a string.
void readLine(int fd, char *line, size_t size) {
    size_t length = 0;
    ssize_t got = 1;
    while (got > 0 && length < size - 1 && memchr(line, '\n', length) == nullptr) {
        got = vlliRetryOnEintr([&] { return vlliBlockInRead(fd, line + length, size - 1 - length); });
        length += got > 0 ? static_cast<size_t>(got) : 0;
    }
    line[length] = '\0';
    line[strcspn(line, "\n")] = '\0';
}

}  // namespace

BlockSignals::BlockSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
}

BlockSignals::BlockSignals(std::initializer_list<int> numbers) {
    sigset_t some;
    sigemptyset(&some);
    for (const int number : numbers) {
        sigaddset(&some, number);
    }
    pthread_sigmask(SIG_BLOCK, &some, &before_);
}

BlockSignals::~BlockSignals() {
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

bool vlliPlanArguments(ChildPlan *plan, size_t count) {
    plan->slots = vlliAllocate<char *>(count + 2);
    if (plan->slots == nullptr) {
        return false;
    }
    plan->arguments = plan->slots.get() + 1;
    return true;
}

bool vlliPlanPath(ChildPlan *plan, const char *entry) {
    const size_t count = countEntries(environ);
    plan->environment = vlliAllocate<char *>(count + 2);
    char **next = plan->environment.get();
    if (next == nullptr) {
        return false;
    }
    *next++ = const_cast<char *>(entry);
    for (size_t i = 0; i < count; ++i) {
        if (strncmp(environ[i], kPathPrefix, kPathPrefixLength) != 0) {
            *next++ = environ[i];
        }
    }
    *next = nullptr;
    plan->path = entry + kPathPrefixLength;
    return true;
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
    plan->candidates = vlliAllocate<char>(strlen(path) + elements * (name_size + 1) + 1);
    if (plan->candidates == nullptr) {
        return false;
    }
    *joinCandidates(plan->candidates.get(), path, program, name_size) = '\0';
    return true;
}

bool vlliPlanCommand(ChildPlan *plan, std::initializer_list<const char *> arguments) {
    if (!vlliPlanArguments(plan, arguments.size())) {
        return false;
    }
    char **next = plan->arguments;
    for (const char *argument : arguments) {
        *next++ = const_cast<char *>(argument);
    }
    *next = nullptr;
    return vlliPlanProgram(plan, plan->arguments[0]);
}

bool vlliStartProgram(const ChildPlan &plan, const sigset_t &signals, StartedChild *child) {
    const NoCancel no_cancel;
    const BlockSignals blocked;    // a handler would run on the child's stack, in the caller's memory
    const int last_error = errno;  // which the child's calls change
    const ChildStack stack;
    if (!stack) {
        return false;
    }
    // Without a descriptor for it the program is started all the same.
    const Fd barrier(memfd_create("start", MFD_CLOEXEC));
    Launch *launch = stack.launch(plan, signals, barrier.get());
    child->pid = clone(runChild, stack.top(), kCloneFlags | SIGCHLD, launch);
    if (child->pid == -1) {
        return false;
    }
    if (barrier) {
        vlliLockFile(barrier.get(), F_SETLKW, F_WRLCK);
    }
    errno = last_error;
    child->failed_call = launch->failed_call;
    child->error = launch->error;
    return true;
}

bool vlliRunProgram(std::initializer_list<const char *> arguments, int *status) {
    ChildPlan plan;
    // As system(3) has it: a handler of the caller's does not reap the child, and the keyboard's signals are the child's.
    const BlockSignals blocked{SIGCHLD, SIGINT, SIGQUIT};
    StartedChild child;
    if (!vlliPlanCommand(&plan, arguments) || !vlliStartProgram(plan, blocked.before(), &child)) {
        return false;
    }
    const int last_error = errno;
    WatchedChild watched(child.pid, SIGKILL);
    if (!watched.wait(status)) {
        if (errno != ECHILD) {
            return false;
        }
        errno = last_error;
        *status = 0;
    }
    return child.failed_call == nullptr || vlliSucceeded(child.error);
}

bool vlliRunForLine(std::initializer_list<const char *> arguments, char *line, size_t size) {
    ChildPlan plan;
    int ends[2];
    if (!vlliPlanCommand(&plan, arguments) || pipe2(ends, O_CLOEXEC) == -1) {
        return false;
    }
    Fd in(ends[0]);
    Fd out(ends[1]);
    plan.output = out.get();
    sigset_t signals;
    pthread_sigmask(SIG_SETMASK, nullptr, &signals);
    StartedChild child;
    if (!vlliStartProgram(plan, signals, &child)) {
        return false;
    }
    const WatchedChild watched(child.pid, 0);
    out.reset();
    // The pipe is closed before the wait, so that a program which goes on writing does not block for ever.
    const Fd pipe = std::move(in);
    readLine(pipe.get(), line, size);
    return true;
}
