// The log files in memory.
//
// An entry's pages are a private copy of its file, not a mapping of it. The daemon or an administrator may cut a log
// file at any moment, and a page of a file mapping behind the file's present end raises SIGBUS. A check before each
// access does not help, since the file may be cut right after the check. read(2) cannot fault: it returns fewer bytes
// when the file has become shorter. The copy costs its size in memory while a handle is open; in return a record's
// bytes stay as they were counted until the next refresh.
#include "eventlog/eventlog_map.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "base/descriptor.h"
#include "base/failure.h"

SyslogMapping SyslogMappings[kSyslogFiles];
uint32_t nSyslogRecordsTotal;
LogFile log_files[kSyslogFiles] = {LogFile(0), LogFile(1)};

namespace {

constexpr char kDirectory[] = "/var/log";
constexpr char kBaseName[] = "vservices";

// A change of a file within this time after the last one might leave its time stamps as they are.
constexpr time_t kStampSeconds = 3;

// A piece of a file that is compared with its copy. It is static because threads with small stacks come here.
char file_block[16384];

bool isSameTime(const timespec &a, const timespec &b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool isSameFileState(const struct stat &a, const struct stat &b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           isSameTime(a.st_mtim, b.st_mtim) && isSameTime(a.st_ctim, b.st_ctim);
}

bool isSettled(const struct stat &status) {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return std::max(status.st_mtim.tv_sec, status.st_ctim.tv_sec) + kStampSeconds < now.tv_sec;
}

// Sixteen bytes at once, in whatever registers the machine has.
typedef uint8_t ByteBlock __attribute__((vector_size(16)));
// As many blocks as can be counted before the count of a byte overflows.
constexpr size_t kStride = 255 * sizeof(ByteBlock);

// Counts the newlines of kStride bytes, and finds out whether there is a NUL among them.
uint32_t countStride(const char *data, bool *has_nul) {
    ByteBlock newlines = {};
    ByteBlock nuls = {};
    for (size_t at = 0; at < kStride; at += sizeof(ByteBlock)) {
        ByteBlock block;
        memcpy(&block, data + at, sizeof block);
        newlines -= reinterpret_cast<ByteBlock>(block == '\n');
        nuls |= reinterpret_cast<ByteBlock>(block == 0);
    }
    uint32_t count = 0;
    uint8_t any_nul = 0;
    for (size_t i = 0; i < sizeof(ByteBlock); ++i) {
        count += newlines[i];
        any_nul |= nuls[i];
    }
    *has_nul = any_nul != 0;
    return count;
}

// Opens an entry's file and reads its state: false with errno when it is not there or no file to read.
bool openFile(int entry, Fd *fd, struct stat *status) {
    char path[kSyslogPathSize];
    vlliGetSyslogPath(entry, path);
    fd->reset(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!*fd || fstat(fd->get(), status) == -1) {
        return false;
    }
    if (!S_ISREG(status->st_mode)) {
        return Fail(EISDIR);
    }
    if (status->st_size > INT32_MAX) {
        return Fail(EFBIG);
    }
    return true;
}

}  // namespace

void vlliGetSyslogPath(int entry, char (&path)[kSyslogPathSize]) {
    if (entry == 0) {
        snprintf(path, sizeof path, "%s/%s", kDirectory, kBaseName);
    } else {
        snprintf(path, sizeof path, "%s/%s.%d", kDirectory, kBaseName, entry - 1);
    }
}

// True when the file is as long as the copy and has the same bytes.
bool LogFile::hasContentOf(int fd, const struct stat &status) const {
    const SyslogMapping &own = mapping();
    if (own.pData == nullptr || status.st_size != status_.st_size || status.st_size != own.nSize) {
        return false;
    }
    for (size_t done = 0; done < own.nSize;) {
        const size_t size = std::min(sizeof file_block, own.nSize - done);
        if (vlliReadFullyAt(fd, file_block, size, static_cast<off_t>(done)) != static_cast<ssize_t>(size) ||
            memcmp(file_block, own.pData + done, size) != 0) {
            return false;
        }
        done += size;
    }
    return true;
}

// Copies the file into fresh pages of the empty entry: FALSE with errno and the entry still empty.
BOOL LogFile::copy(int fd, size_t size) {
    void *const pages = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) {
        return FALSE;
    }
    const ssize_t got = vlliReadFullyAt(fd, pages, size, 0);
    if (got <= 0) {
        const KeepErrno keep_errno;
        munmap(pages, size);
        return got == 0;
    }
    mprotect(pages, size, PROT_READ);
    mapping().pData = static_cast<const char *>(pages);
    mapping().nSize = static_cast<uint32_t>(got);
    return TRUE;
}

BOOL LogFile::drop() {
    BOOL unmapped = TRUE;
    if (mapping().pData != nullptr) {
        // The copy of a file that was cut while it was read has more pages than bytes.
        unmapped = munmap(const_cast<char *>(mapping().pData), static_cast<size_t>(status_.st_size)) == 0;
        ++generation_;
    }
    mapping() = {};
    status_ = {};
    text_size_ = 0;
    return unmapped;
}

// Drops the copy of a file that is another one now; errno is kept.
void LogFile::dropChanged(int *changed) {
    if (mapping().pData != nullptr) {
        const KeepErrno keep_errno;
        drop();
        *changed = 1;
    }
}

BOOL LogFile::refresh(int *changed) {
    Fd fd;
    struct stat status;
    const int last_error = errno;
    if (!openFile(entry_, &fd, &status)) {
        dropChanged(changed);
        if (errno != ENOENT) {
            return FALSE;
        }
        errno = last_error;  // a file that is not there is an empty log
        return TRUE;
    }
    if (mapping().pData != nullptr && settled_ && isSameFileState(status, status_)) {
        return TRUE;
    }
    settled_ = isSettled(status);
    if (hasContentOf(fd.get(), status)) {
        status_ = status;
        return TRUE;
    }
    dropChanged(changed);
    if (status.st_size == 0) {
        return TRUE;
    }
    if (!copy(fd.get(), static_cast<size_t>(status.st_size))) {
        return FALSE;
    }
    if (mapping().pData != nullptr) {
        status_ = status;
        ++generation_;
        *changed = 1;
    }
    return TRUE;
}

BOOL vlliMapSyslogFile(int entry, int *changed) {
    return log_files[entry].refresh(changed);
}

BOOL vlliMapSyslogFiles(int *changed) {
    for (int entry = 0; entry < kSyslogFiles; ++entry) {
        if (!vlliMapSyslogFile(entry, changed)) {
            return FALSE;
        }
    }
    return TRUE;
}

// The first byte never counts, whatever it is.
void LogFile::countLines() {
    const char *const data = mapping().pData;
    const size_t size = data != nullptr ? mapping().nSize : 0;
    uint32_t lines = 0;
    size_t at = data != nullptr ? 1 : 0;
    while (at + kStride <= size) {
        bool has_nul;
        const uint32_t newlines = countStride(data + at, &has_nul);
        if (has_nul) {
            break;
        }
        lines += newlines;
        at += kStride;
    }
    while (at < size && data[at] != '\0') {
        lines += data[at] == '\n';
        ++at;
    }
    mapping().nRecords = lines;
    text_size_ = at;
}

void vlliGetSyslogRecordsNumber() {
    nSyslogRecordsTotal = 0;
    for (int entry = 0; entry < kSyslogFiles; ++entry) {
        log_files[entry].countLines();
        nSyslogRecordsTotal += SyslogMappings[entry].nRecords;
    }
}
