// Processes: the command line's tokens, and the thread that waits for a child.
#pragma once

#include "base/allocate.h"
#include "vwincompat/process.h"

// A command line, which is cut into tokens in place. Each token is a string once next() has found no further one.
class CommandLine {
  public:
    // A copy of the text, or of none: false with ENOMEM.
    bool copy(const char *text);

    // The next token, or null.
    char *next();

  private:
    HeapBlock<char> text_;
    char *at_ = nullptr;  // the next byte of the scan
    bool in_quotes_ = false;
};

// The start routine of the thread that waits for a child. The parameter is the child's process id itself, so that the
// thread uses nobody's memory. Returns the result of waitpid(2).
uint32_t vlliWaitForProcess(LPVOID parameter);
