// Modules and files as the process's own entries of /proc name them.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>

#include "base/failure.h"
#include "vwincompat/module.h"

// A stream that is closed at the end of its scope, with errno kept.
struct FileCloser {
    void operator()(FILE *file) const {
        const KeepErrno keep_errno;
        fclose(file);
    }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

// A code segment, as a line of the memory map describes it.
struct CodeSegment {
    uintptr_t start;
    uintptr_t end;  // the first address after it
    char *path;     // points into the line
};

// Parses a line of the memory map, which has no newline; " (deleted)" is cut off its path in place. False when the line does
// not describe a code segment with a path.
bool vlliParseMapLine(char *line, CodeSegment *segment);

// Copy the path of the program, and of the file whose code is at an address, to a buffer of VLL_MODULE_NAME_SIZE bytes:
// TRUE, or FALSE with errno.
BOOL vlliGetProgramName(char *buffer);
BOOL vlliGetModuleFileNameByAddress(LPCVOID address, char *buffer);
