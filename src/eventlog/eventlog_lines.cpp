// The lines of the log by their numbers. A line starts at the newline before it, or at the first byte of its file.
#include "eventlog/eventlog_lines.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/failure.h"

namespace {

// Walks from one line of a file to another, each known by its number and its start.
class LineWalk {
  public:
    LineWalk(std::string_view text, uint32_t line, size_t start) : text_(text), line_(line), start_(start) {}

    // False when the text ends before the line.
    bool moveTo(uint32_t line) {
        while (line_ < line) {
            if (!findEnd(&start_)) {
                return false;
            }
            ++line_;
        }
        while (line_ > line) {
            start_ = line_ == 2 ? 0 : previousNewline();
            --line_;
        }
        return true;
    }

    // Finds the newline that ends the line.
    bool findEnd(size_t *newline) const {
        const void *const found = memchr(text_.data() + start_ + 1, '\n', text_.size() - start_ - 1);
        if (found == nullptr) {
            return false;
        }
        *newline = offsetOf(found);
        return true;
    }

    size_t start() const { return start_; }

  private:
    size_t offsetOf(const void *found) const {
        return static_cast<size_t>(static_cast<const char *>(found) - text_.data());
    }

    // The newline before the one that the line starts at. The first byte never counts.
    size_t previousNewline() const {
        const void *const found = memrchr(text_.data() + 1, '\n', start_ - 1);
        return found != nullptr ? offsetOf(found) : 0;
    }

    std::string_view text_;
    uint32_t line_;
    size_t start_;
};

uint32_t distance(uint32_t a, uint32_t b) {
    return a > b ? a - b : b - a;
}

// A walk from the place nearest to a line: the first line, the end of the last, or where the handle found a line last.
LineWalk nearestStart(int entry, uint32_t line, const LineCursor &cursor) {
    const LogFile &file = log_files[entry];
    const std::string_view text = file.text();
    const uint32_t behind_last = SyslogMappings[entry].nRecords + 1;
    uint32_t known = 1;
    size_t start = 0;
    if (cursor.entry == entry && cursor.generation == file.generation() &&
        distance(cursor.line, line) < distance(known, line)) {
        known = cursor.line;
        start = cursor.start;
    }
    if (distance(behind_last, line) < distance(known, line)) {
        known = behind_last;
        start = text.rfind('\n');
    }
    return {text, known, start};
}

// Copies a line of an entry, cut to kLineLimit: false when it is not there.
bool copyLine(EventLogHandle *handle, int entry, uint32_t number, char (&line)[kLineLimit + 1]) {
    const LogFile &file = log_files[entry];
    LineWalk walk = nearestStart(entry, number, handle->cursor);
    size_t end;
    if (!walk.moveTo(number) || !walk.findEnd(&end)) {
        return false;
    }
    handle->cursor = {file.generation(), entry, number, walk.start()};
    const size_t begin = walk.start() + (file.text()[walk.start()] == '\n');
    line[file.text().copy(line, std::min(end - begin, kLineLimit), begin)] = '\0';
    return true;
}

// Why a number outside the log is refused: a sequential reader went past an end, or there is no such record.
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

BOOL vlliGetEventLogRecord(EventLogHandle *handle, DWORD flags, int32_t number) {
    memset(handle->RecordBuffer, 0, sizeof handle->RecordBuffer);
    if (number < 1 || static_cast<uint32_t>(number) > nSyslogRecordsTotal) {
        return Fail(errorOutside(flags, number));
    }
    uint32_t line_number = static_cast<uint32_t>(number);
    for (int entry = kSyslogFiles - 1; entry >= 0; --entry) {
        if (line_number > SyslogMappings[entry].nRecords) {
            line_number -= SyslogMappings[entry].nRecords;
            continue;
        }
        char line[kLineLimit + 1];
        if (!copyLine(handle, entry, line_number, line)) {
            break;
        }
        vlliBuildEventLogRecord(line, static_cast<uint32_t>(number), handle->RecordBuffer);
        return TRUE;
    }
    return Fail(ENOMSG);
}
