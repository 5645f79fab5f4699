// Child programs: the command line's tokens, and the way from fork() to the program.
#pragma once

#include <sys/types.h>
#include <csignal>
#include <cstddef>
#include <memory>

#include "base/allocate.h"
#include "vwincompat/process.h"

// Cuts a command line into tokens in place and stores where each begins, room of them at most: their number,
// or room + 1 when there are more.
size_t vlliCutCommandLine(char *text, char **tokens, size_t room);

// All signals blocked for a scope.
class BlockSignals {
  public:
    BlockSignals();
    ~BlockSignals();
    BlockSignals(const BlockSignals &) = delete;
    BlockSignals &operator=(const BlockSignals &) = delete;

    const sigset_t &before() const { return before_; }

  private:
    sigset_t before_;
};

// What a child needs between fork() and exec, made before the fork: the child allocates nothing and takes
// no lock, since another thread of the parent may have held it at that moment for ever.
struct ChildPlan {
    // The slot before arguments[0] is free: a script without "#!" is handed to the shell through it.
    HeapBlock<char *> slots;
    char **arguments = nullptr;
    HeapBlock<char> candidates;       // what to run, in order: strings, then an empty one
    bool searched = false;            // found along PATH, as execvp(3) does
    const char *directory = nullptr;  // null: the caller's
    char path[sizeof "PATH=" - 1 + VLL_PATH_SIZE] = "";
    HeapBlock<char *> environment;  // null: the caller's
    char logHead[128] = "";         // a log line up to its text; empty: failures are not logged
};

// Room for count arguments and the closing null pointer: false with ENOMEM.
bool vlliPlanArguments(ChildPlan *plan, size_t count);

// The working directory and the PATH that ends with it: false with ENAMETOOLONG or ENOMEM.
bool vlliPlanDirectory(ChildPlan *plan, const char *directory);

// The files to try for a program name, after the directory: false with ENOMEM.
bool vlliPlanProgram(ChildPlan *plan, const char *program);

// A child that fails will say so in the log.
void vlliPlanLog(ChildPlan *plan);

// fork(2), with signals blocked by the caller. The child runs the plan and never returns.
pid_t vlliForkChild(const ChildPlan &plan, const BlockSignals &blocked);

// The start routine of the thread that waits for a child; the parameter is its pid itself, so the thread
// depends on nobody's memory. The result of waitpid(2).
uint32_t vlliWaitForProcess(LPVOID parameter);
