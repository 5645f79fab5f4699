// The times of open files. Linux keeps no creation time: the time of the last status change stands in for it.
#include <sys/stat.h>
#include <cerrno>
#include <ctime>

#include "base/failure.h"
#include "time/time_convert.h"
#include "vwincompat/datetime.h"

BOOL vllGetFileTime(HANDLE hFile, FILETIME *lpCreationTime, FILETIME *lpLastAccessTime,
                    FILETIME *lpLastWriteTime) {
    struct stat status;
    if (fstat(static_cast<int>(hFile), &status) == -1) {
        return FALSE;
    }
    const struct {
        FILETIME *out;
        time_t seconds;
    } wanted[] = {
        {lpCreationTime, status.st_ctime},
        {lpLastAccessTime, status.st_atime},
        {lpLastWriteTime, status.st_mtime},
    };
    for (const auto &each : wanted) {
        if (each.out != nullptr && each.seconds != static_cast<FILETIME>(each.seconds)) {
            return Fail(EOVERFLOW);
        }
    }
    for (const auto &each : wanted) {
        if (each.out != nullptr) {
            *each.out = static_cast<FILETIME>(each.seconds);
        }
    }
    return TRUE;
}

BOOL vllSetFileTime(HANDLE hFile, const FILETIME * /*lpCreationTime*/, const FILETIME *lpLastAccessTime,
                    const FILETIME *lpLastWriteTime) {
    if (lpLastAccessTime == nullptr && lpLastWriteTime == nullptr) {
        return TRUE;
    }
    timespec times[2] = {};
    if (lpLastAccessTime == nullptr || lpLastWriteTime == nullptr) {
        struct stat status;
        if (fstat(static_cast<int>(hFile), &status) == -1) {
            return FALSE;
        }
        times[0].tv_sec = status.st_atime;
        times[1].tv_sec = status.st_mtime;
    }
    if (lpLastAccessTime != nullptr) {
        times[0].tv_sec = *lpLastAccessTime;
    }
    if (lpLastWriteTime != nullptr) {
        times[1].tv_sec = *lpLastWriteTime;
    }
    return futimens(static_cast<int>(hFile), times) != -1;
}
