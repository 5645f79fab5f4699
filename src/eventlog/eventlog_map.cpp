// The log files in memory, and where their lines are.
//
// An entry's pages are a private copy of its file, not a mapping of it. A log file shrinks at any moment: the daemon
// or an administrator cuts it, and a page of a file mapping behind the file's present end raises SIGBUS. No check
// before an access helps, since the file may be cut right behind the check. read(2) cannot fault: it brings fewer
// bytes when the file has become shorter. The copy costs its size in memory while a handle is open; what it
// buys is that a record's bytes stay as they were counted until the next refresh.
#include "eventlog/eventlog_map.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "base/descriptor.h"
#include "base/failure.h"
#include "eventlog/eventlog_record.h"

SyslogMapping SyslogMappings[kSyslogFiles];
uint32_t nSyslogRecordsTotal;

namespace {

constexpr char kDirectory[] = "/var/log";
constexpr char kBaseName[] = "vservices";

// A change of a file within this time after the last one might leave its time stamps as they are.
constexpr time_t kStampSeconds = 3;

// What an entry's copy was made of, and what follows from its bytes.
struct Source {
    struct stat status;
    bool settled;     // a later change of the file shows in its status
    size_t text_end;  // the first NUL behind the first byte, or nSize
};

Source sources[kSyslogFiles];

// Counts the changes of any entry's data.
uint32_t data_generation = 1;

bool equal(const timespec &a, const timespec &b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool sameFileState(const struct stat &a, const struct stat &b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           equal(a.st_mtim, b.st_mtim) && equal(a.st_ctim, b.st_ctim);
}

bool isSettled(const struct stat &status) {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return std::max(status.st_mtim.tv_sec, status.st_ctim.tv_sec) + kStampSeconds < now.tv_sec;
}

// read(2) at an offset, again after a signal.
ssize_t readAt(int fd, void *data, size_t size, size_t offset) {
    ssize_t got;
    do {
        got = pread(fd, data, size, static_cast<off_t>(offset));
    } while (got == -1 && errno == EINTR);
    return got;
}

// Fills data from the file's start: the bytes read, fewer than size where the file ends before; or -1 with errno.
ssize_t readFile(int fd, char *data, size_t size) {
    size_t done = 0;
    while (done < size) {
        const ssize_t got = readAt(fd, data + done, size - done, done);
        if (got == -1) {
            return -1;
        }
        if (got == 0) {
            break;
        }
        done += static_cast<size_t>(got);
    }
    return static_cast<ssize_t>(done);
}

// True when the file begins with an entry's bytes.
bool hasSameContent(int fd, const SyslogMapping &mapping) {
    char block[16384];
    for (size_t done = 0; done < mapping.nSize;) {
        const ssize_t got = readAt(fd, block, std::min(sizeof block, mapping.nSize - done), done);
        if (got <= 0 || memcmp(block, mapping.pData + done, static_cast<size_t>(got)) != 0) {
            return false;
        }
        done += static_cast<size_t>(got);
    }
    return true;
}

// Copies the file into fresh pages of an empty entry: FALSE with errno and the entry still empty.
BOOL copyFile(int fd, size_t size, SyslogMapping *mapping) {
    void *const pages = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) {
        return FALSE;
    }
    const ssize_t got = readFile(fd, static_cast<char *>(pages), size);
    if (got <= 0) {
        const KeepErrno keep_errno;
        munmap(pages, size);
        return got == 0;
    }
    mprotect(pages, size, PROT_READ);
    mapping->pData = static_cast<const char *>(pages);
    mapping->nSize = static_cast<uint32_t>(got);
    return TRUE;
}

// Drops what an entry holds because its file changed, and says so.
void dropChanged(int entry, int *changed) {
    if (SyslogMappings[entry].pData != nullptr) {
        const KeepErrno keep_errno;
        vlliUnmapSyslogFile(entry);
        *changed = 1;
    }
}

// Opens an entry's file and reads its state: false with errno when it is not there or no file to read.
bool openSource(int entry, Fd *fd, struct stat *status) {
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

BOOL vlliUnmapSyslogFile(int entry) {
    SyslogMapping &mapping = SyslogMappings[entry];
    BOOL unmapped = TRUE;
    if (mapping.pData != nullptr) {
        // The copy of a file that was cut while it was read has more room than bytes.
        const size_t size = static_cast<size_t>(sources[entry].status.st_size);
        unmapped = munmap(const_cast<char *>(mapping.pData), size) == 0;
        ++data_generation;
    }
    mapping = {};
    sources[entry] = {};
    return unmapped;
}

BOOL vlliMapSyslogFile(int entry, int *changed) {
    SyslogMapping &mapping = SyslogMappings[entry];
    Source &source = sources[entry];
    Fd fd;
    struct stat status;
    if (!openSource(entry, &fd, &status)) {
        dropChanged(entry, changed);
        return errno == ENOENT;
    }
    const bool mapped = mapping.pData != nullptr;
    const bool same_state = mapped && sameFileState(status, source.status);
    if (same_state && source.settled) {
        return TRUE;
    }
    const bool settled = isSettled(status);
    if (mapped && status.st_size == source.status.st_size && status.st_size == mapping.nSize &&
        hasSameContent(fd.get(), mapping)) {
        source.status = status;
        source.settled = settled;
        return TRUE;
    }
    dropChanged(entry, changed);
    if (status.st_size == 0) {
        return TRUE;
    }
    if (!copyFile(fd.get(), static_cast<size_t>(status.st_size), &mapping)) {
        return FALSE;
    }
    if (mapping.pData != nullptr) {
        source = {status, settled, 0};
        ++data_generation;
        *changed = 1;
    }
    return TRUE;
}

BOOL vlliMapSyslogFiles(int *changed) {
    for (int entry = 0; entry < kSyslogFiles; ++entry) {
        if (!vlliMapSyslogFile(entry, changed)) {
            return FALSE;
        }
    }
    return TRUE;
}

namespace {

// Sixteen bytes at once, in whatever registers the machine has.
typedef uint8_t ByteBlock __attribute__((vector_size(16)));
// So many blocks that no byte of their count overflows.
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

// Counts an entry's newlines behind its first byte and before the first NUL there.
void countEntry(int entry) {
    SyslogMapping &mapping = SyslogMappings[entry];
    const char *const data = mapping.pData;
    const size_t size = mapping.nSize;
    mapping.nRecords = 0;
    size_t at = 1;
    while (at + kStride <= size) {
        bool has_nul;
        const uint32_t newlines = countStride(data + at, &has_nul);
        if (has_nul) {
            break;
        }
        mapping.nRecords += newlines;
        at += kStride;
    }
    while (at < size && data[at] != '\0') {
        mapping.nRecords += data[at] == '\n';
        ++at;
    }
    sources[entry].text_end = at;
}

// Walks from one line to another, each known by its number and its start.
class LineWalk {
  public:
    LineWalk(const char *data, size_t text_end, uint32_t line, size_t start)
        : data_(data), text_end_(text_end), line_(line), start_(start) {}

    // False when the data ends before.
    bool moveTo(uint32_t line) {
        while (line_ < line) {
            size_t newline;
            if (!nextNewline(&newline)) {
                return false;
            }
            start_ = newline;
            ++line_;
        }
        while (line_ > line) {
            start_ = line_ == 2 ? 0 : previousNewline();
            --line_;
        }
        return true;
    }

    // The newline that ends the line.
    bool nextNewline(size_t *newline) const {
        const void *const found = memchr(data_ + start_ + 1, '\n', text_end_ - start_ - 1);
        if (found == nullptr) {
            return false;
        }
        *newline = static_cast<size_t>(static_cast<const char *>(found) - data_);
        return true;
    }

    size_t start() const { return start_; }

  private:
    // The newline before the one that the line starts at. There is one, or the line would be the second.
    size_t previousNewline() const {
        const void *const found = memrchr(data_ + 1, '\n', start_ - 1);
        return found != nullptr ? static_cast<size_t>(static_cast<const char *>(found) - data_) : 0;
    }

    const char *data_;
    size_t text_end_;
    uint32_t line_;
    size_t start_;
};

uint32_t distance(uint32_t a, uint32_t b) {
    return a > b ? a - b : b - a;
}

// A walk from what is known nearest to a line: the first line, the end of the last, where the handle read last.
LineWalk nearestStart(int entry, uint32_t line, const LineCursor &cursor) {
    const SyslogMapping &mapping = SyslogMappings[entry];
    const size_t text_end = sources[entry].text_end;
    uint32_t known = 1;
    size_t start = 0;
    if (cursor.generation == data_generation && cursor.entry == entry &&
        distance(cursor.line, line) < distance(known, line)) {
        known = cursor.line;
        start = cursor.start;
    }
    if (distance(mapping.nRecords + 1, line) < distance(known, line)) {
        known = mapping.nRecords + 1;
        start = static_cast<size_t>(static_cast<const char *>(memrchr(mapping.pData, '\n', text_end)) -
                                    mapping.pData);
    }
    return {mapping.pData, text_end, known, start};
}

// Copies a line of an entry, cut to kLineLimit: false when it is not there.
bool copyLine(EventLogHandle *handle, int entry, uint32_t number, char (&line)[kLineLimit + 1]) {
    const char *const data = SyslogMappings[entry].pData;
    LineWalk walk = nearestStart(entry, number, handle->cursor);
    size_t end;
    if (!walk.moveTo(number) || !walk.nextNewline(&end)) {
        return false;
    }
    handle->cursor = {data_generation, entry, number, walk.start()};
    const size_t begin = walk.start() + (data[walk.start()] == '\n');
    const size_t length = std::min(end - begin, kLineLimit);
    memcpy(line, data + begin, length);
    line[length] = '\0';
    return true;
}

// Why a number outside the log is refused: a sequential reader ran off an end, or there is no such record.
int errorOutside(DWORD flags, int64_t number) {
    const auto has = [flags](DWORD wanted) { return (flags & wanted) == wanted; };
    if ((number == int64_t{nSyslogRecordsTotal} + 1 &&
         has(EVENTLOG_SEQUENTIAL_READ | EVENTLOG_FORWARDS_READ)) ||
        (number == 0 && has(EVENTLOG_SEQUENTIAL_READ | EVENTLOG_BACKWARDS_READ))) {
        return ERANGE;
    }
    return ENOMSG;
}

}  // namespace

void vlliGetSyslogRecordsNumber() {
    nSyslogRecordsTotal = 0;
    for (int entry = 0; entry < kSyslogFiles; ++entry) {
        SyslogMappings[entry].nRecords = 0;
        if (SyslogMappings[entry].pData != nullptr) {
            countEntry(entry);
        }
        nSyslogRecordsTotal += SyslogMappings[entry].nRecords;
    }
}

BOOL vlliGetEventLogRecord(EventLogHandle *handle, DWORD flags, int32_t number) {
    memset(handle->RecordBuffer, 0, sizeof handle->RecordBuffer);
    if (number < 1 || static_cast<uint32_t>(number) > nSyslogRecordsTotal) {
        errno = errorOutside(flags, number);
        return FALSE;
    }
    uint32_t before = 0;
    for (int entry = kSyslogFiles - 1; entry >= 0; --entry) {
        const uint32_t line_number = static_cast<uint32_t>(number) - before;
        if (line_number <= SyslogMappings[entry].nRecords) {
            char line[kLineLimit + 1];
            if (!copyLine(handle, entry, line_number, line)) {
                break;
            }
            vlliBuildEventLogRecord(line, static_cast<uint32_t>(number), handle->RecordBuffer);
            return TRUE;
        }
        before += SyslogMappings[entry].nRecords;
    }
    return Fail(ENOMSG);
}
