// From a line of the log to an event-log record.
#include "eventlog/eventlog_record.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/text.h"
#include "vwincompat/datetime.h"

static_assert(sizeof(EVENTLOGRECORD) == 64 && offsetof(EVENTLOGRECORD, TimeGenerated) == 12 &&
                  offsetof(EVENTLOGRECORD, EventType) == 24 && offsetof(EVENTLOGRECORD, StringOffset) == 36 &&
                  offsetof(EVENTLOGRECORD, Reserved2) == 56,
              "record layout");
// The largest record: a source of ours, the longest host name, the longest line as message.
static_assert(sizeof(EVENTLOGRECORD) + 3 + sizeof "gatekeeper" - 1 + kTokenLimit + kLineLimit + 3 + 4 <=
                  kRecordBufferSize,
              "record buffer");

namespace {

constexpr uint32_t kSignature = 0x654C664C;  // "LfLe"

// The tokens of a line, numbered from 1.
enum Token { kHost = 4, kPriority = 5, kTag = 6 };

// Carriage returns and the like are part of a token.
bool separatesTokens(char c) {
    return c == ' ' || c == '\t';
}

// Finds the first count tokens of a line, each cut to kTokenLimit: how many there are.
int splitLine(std::string_view line, std::string_view *tokens, int count) {
    int found = 0;
    for (size_t at = 0; found < count; ++found) {
        while (at < line.size() && separatesTokens(line[at])) {
            ++at;
        }
        const size_t start = at;
        while (at < line.size() && !separatesTokens(line[at])) {
            ++at;
        }
        if (at == start) {
            break;
        }
        tokens[found] = line.substr(start, std::min(at - start, kTokenLimit));
    }
    return found;
}

// The library's own log lines have a mark somewhere.
bool isOwnLine(std::string_view line) {
    for (size_t at = 0; at < line.size(); ++at) {
        if ((line[at] | 0x20) == 'v' && (vlliEqualsIgnoringCase(line.substr(at, 4), "VLL:") ||
                                         vlliEqualsIgnoringCase(line.substr(at, 5), "VLLI:"))) {
            return true;
        }
    }
    return false;
}

WORD eventTypeOf(std::string_view priority) {
    static constexpr struct {
        std::string_view name;
        WORD type;
    } kTypes[] = {
        {"user.warn", EVENTLOG_WARNING_TYPE},
        {"user.info", EVENTLOG_INFORMATION_TYPE},
        {"user.debug", EVENTLOG_INFORMATION_TYPE},
        {"user.err", EVENTLOG_ERROR_TYPE},
    };
    for (const auto &each : kTypes) {
        if (vlliEqualsIgnoringCase(priority.substr(0, each.name.size()), each.name)) {
            return each.type;
        }
    }
    return EVENTLOG_SUCCESS;
}

// The month's number, or 0 when the line does not start with a month.
WORD monthOf(std::string_view line) {
    static constexpr char kMonths[12][4] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    for (WORD month = 0; month < 12; ++month) {
        if (vlliEqualsIgnoringCase(line.substr(0, 3), kMonths[month])) {
            return static_cast<WORD>(month + 1);
        }
    }
    return 0;
}

// Reads a number as scanf(3)'s "%d" does, from an index that may lie past the line's end. *end receives where the number
// ends, or null when there is none.
WORD numberAt(const char *line, size_t length, size_t index, const char **end) {
    char *stop = nullptr;
    const char *const start = line + std::min(index, length);
    const long value = strtol(start, &stop, 10);
    *end = stop != start ? stop : nullptr;
    return static_cast<WORD>(value);
}

// Puts text at an offset of a record, with a NUL: the offset behind it.
size_t append(char *buffer, size_t offset, std::string_view text) {
    memcpy(buffer + offset, text.data(), text.size());
    return offset + text.size() + 1;
}

}  // namespace

FILETIME vlliGetRecordTime(const char *line) {
    SYSTEMTIME now;
    if (!vllGetSystemTime(&now)) {
        return -1;
    }
    const size_t length = strlen(line);
    const char *end;
    SYSTEMTIME stamp = {};
    stamp.wMonth = monthOf(line);
    if (stamp.wMonth == 0) {
        stamp.wMonth = now.wMonth;
    }
    stamp.wYear = static_cast<WORD>(stamp.wMonth > now.wMonth ? now.wYear - 1 : now.wYear);
    stamp.wDay = numberAt(line, length, 4, &end);
    if (end != nullptr) {
        stamp.wHour = numberAt(line, length, static_cast<size_t>(end - line), &end);
    }
    stamp.wMinute = numberAt(line, length, 10, &end);
    stamp.wSecond = numberAt(line, length, 13, &end);
    FILETIME seconds;
    vllSystemTimeToFileTime(&stamp, &seconds);
    return seconds;
}

WORD vlliGetEventType(const char *line) {
    std::string_view tokens[kPriority];
    return splitLine(line, tokens, kPriority) == kPriority ? eventTypeOf(tokens[kPriority - 1])
                                                           : EVENTLOG_SUCCESS;
}

void vlliBuildEventLogRecord(const char *text, uint32_t number, char *buffer) {
    const std::string_view line(text);
    std::string_view tokens[kTag];
    if (splitLine(line, tokens, kTag) < kTag) {
        return;
    }
    const std::string_view source = tokens[kTag - 1].substr(0, tokens[kTag - 1].size() - 1);
    if ((!vlliEqualsIgnoringCase(source, "gateway") && !vlliEqualsIgnoringCase(source, "gatekeeper")) ||
        isOwnLine(line)) {
        return;
    }
    // The first occurrence of the name counts, also where that is the host's name. A colon and a blank end the tag.
    const size_t message = std::min(line.find(source) + source.size() + 2, line.size());

    EVENTLOGRECORD head = {};
    head.Reserved = kSignature;
    head.RecordNumber = number;
    head.TimeGenerated = vlliGetRecordTime(text);
    head.TimeWritten = head.TimeGenerated;
    head.EventType = eventTypeOf(tokens[kPriority - 1]);
    head.NumStrings = 1;
    size_t end = append(buffer, sizeof head, source);
    end = append(buffer, end, tokens[kHost - 1]);
    head.StringOffset = static_cast<DWORD>(end);
    end = append(buffer, end, line.substr(message));
    head.Length = static_cast<DWORD>((end + 3) / 4 * 4 + sizeof head.Length);
    memcpy(buffer, &head, sizeof head);
    memcpy(buffer + head.Length - sizeof head.Length, &head.Length, sizeof head.Length);
}
