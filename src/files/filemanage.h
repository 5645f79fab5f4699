// What the files of this module share: the conversion of Windows paths, comparison of names, file times.
#pragma once

#include <sys/types.h>

#include "vwincompat/types.h"

// Turns a Windows path into a Linux path and repairs the case of its components: 0, or -1 when a component cannot be
// resolved. The output buffer has strlen(in) + 16 bytes.
int vlliConvertToLinuxPath(char *out, const char *in);

// Repairs the case of the last component of path, which begins at component, right after a '/'. 0, or -1 when
// nothing matches and the component is not the last of the input, or when its directory cannot be read.
int vlliFixPathCase(char *path, char *component, int isLast);

// True when both names are one entry of one directory, however they are spelled: what is done to the one is done to
// the other. A symbolic link is an entry itself. errno is kept.
bool vlliIsSameEntry(const char *one, const char *other);

// True when the new name already is the old one's file: the same entry, another hard link to it, or the file that the
// old name leads to as a symbolic link. Never true of a directory. errno is kept.
bool vlliIsAlreadyThere(const char *from, const char *to);

// A time that does not fit is -1.
inline FILETIME vlliToFileTime(time_t time) {
    const auto seconds = static_cast<FILETIME>(time);
    return seconds == time ? seconds : -1;
}
