// Files and paths: what the files of this module share, and other modules may call.
#pragma once

#include <sys/stat.h>
#include <cerrno>

#include "vwincompat/file.h"
#include "vwincompat/fileops.h"
#include "vwincompat/path.h"

// Turns a Windows path into a Linux path and repairs the case of its components: 0, or -1 when a component
// could not be resolved. out has room for strlen(in) + 16 bytes.
int vlliConvertToLinuxPath(char *out, const char *in);

// Repairs the case of the last component of path, which begins at component, right after a '/'. 0, or -1 when
// nothing matches and the component is not the last of the input, or when its directory cannot be read.
int vlliFixPathCase(char *path, char *component, int isLast);

// True when both names are one entry of one directory, however spelled: what is done to the one is done to the other.
// Symbolic links are entries themselves. errno is kept.
bool vlliIsSameEntry(const char *one, const char *other);

// A time that does not fit is -1.
inline FILETIME vlliToFileTime(time_t time) {
    const auto seconds = static_cast<FILETIME>(time);
    return seconds == time ? seconds : -1;
}

// How an operation refuses an argument.
inline BOOL vlliFailInvalid() {
    errno = EINVAL;
    return FALSE;
}
