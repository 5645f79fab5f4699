// Running programs in child processes: the one way in which the library does it.
//
// A child shares the caller's memory until it executes its program, as with vfork(2), but on a stack of its own. So it
// allocates nothing, takes no lock, and writes only to its stack and its plan: all else is planned before it is started.
// The thread that starts it waits until it has executed or failed.
#pragma once

#include <sys/types.h>
#include <csignal>
#include <cstddef>
#include <initializer_list>

#include "base/allocate.h"

// Blocks all signals, or the listed ones besides those that are blocked, for a scope.
class BlockSignals {
  public:
    BlockSignals();
    BlockSignals(std::initializer_list<int> numbers);
    ~BlockSignals();
    BlockSignals(const BlockSignals &) = delete;
    BlockSignals &operator=(const BlockSignals &) = delete;

    // The mask of the calling thread before.
    const sigset_t &before() const { return before_; }

  private:
    sigset_t before_;
};

// What a child does.
struct ChildPlan {
    // The slot before arguments[0] is free: a script without "#!" is given to the shell through it.
    HeapBlock<char *> slots;
    char **arguments = nullptr;
    HeapBlock<char> candidates;       // the files to try, in order: strings, then an empty one
    bool searched = false;            // they were found along PATH, as execvp(3) does
    const char *directory = nullptr;  // null: the caller's
    const char *path = nullptr;       // the child's PATH; null: the caller's
    HeapBlock<char *> environment;    // null: the caller's
    int output = -1;                  // the descriptor that becomes the standard output; -1: the caller's
};

// Allocates an argument vector for count arguments and the closing null pointer: false with ENOMEM.
bool vlliPlanArguments(ChildPlan *plan, size_t count);

// Replaces PATH in the child's environment by an entry "PATH=...", which must outlive the plan: false with ENOMEM.
bool vlliPlanPath(ChildPlan *plan, const char *entry);

// Plans the files to try for a program name. PATH comes first: false with ENOMEM.
bool vlliPlanProgram(ChildPlan *plan, const char *program);

// Plans to run a program with these arguments, the first of which is its name: false with ENOMEM.
bool vlliPlanCommand(ChildPlan *plan, std::initializer_list<const char *> arguments);

struct StartedChild {
    pid_t pid;
    const char *failed_call;  // "chdir" or "exec"; null: the program runs
    int error;                // of the failed call; also the child's exit status
};

// Starts a child with this signal mask, and waits until it has executed its program or failed. Not a cancellation point.
// False with errno when no child can be made.
bool vlliStartProgram(const ChildPlan &plan, const sigset_t &signals, StartedChild *child);

// Runs a program and waits for its end: true with the status as waitpid(2) reports it, or false with errno when it could
// not be run. The status is 0 when it cannot be read: the process ignores SIGCHLD, or another thread has reaped the child. A cancellation point while it waits; when the thread is cancelled there the program is killed.
bool vlliRunProgram(std::initializer_list<const char *> arguments, int *status);

// Runs a program, reads the first line of its output, at most size - 1 bytes, and waits for its end: true with
// the line, which is empty when the program cannot be executed; or false with errno. A cancellation point while it reads;
// a thread that is cancelled there still waits for the program's end.
bool vlliRunForLine(std::initializer_list<const char *> arguments, char *line, size_t size);
