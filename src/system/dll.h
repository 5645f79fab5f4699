// Modules: what they are called in the process's own memory map.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>

#include "base/failure.h"
#include "vwincompat/module.h"

struct FileCloser {
    void operator()(FILE *file) const {
        const KeepErrno keep_errno;
        fclose(file);
    }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

// A code segment, from a line of the memory map.
struct CodeSegment {
    uintptr_t start;
    uintptr_t end;  // the first address after it
    char *path;     // within the line
};

// Reads a line of the memory map, without its newline, which is cut up for it: false when it is not that of a
// code segment with a path.
bool vlliParseMapLine(char *line, CodeSegment *segment);

// The program's own file name, and that of the code at an address: TRUE, or FALSE with errno. The buffer has
// VLL_MODULE_NAME_SIZE bytes.
BOOL vlliGetProgramName(char *buffer);
BOOL vlliGetModuleFileNameByAddress(LPCVOID address, char *buffer);
