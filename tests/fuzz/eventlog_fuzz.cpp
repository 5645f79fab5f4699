// Any bytes as a log: each line is read forwards, backwards and from anywhere, and compared with the record that is built
// from it alone.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "check.h"
#include "eventlog/eventlog_lines.h"

namespace {

std::vector<std::string> linesOf(const std::string &text) {
    std::vector<std::string> lines;
    size_t start = 0;
    for (size_t at = 1; at < text.size() && text[at] != '\0'; ++at) {
        if (text[at] == '\n') {
            const size_t begin = start + (text[start] == '\n');
            lines.push_back(text.substr(begin, std::min(at - begin, kLineLimit)));
            start = at;
        }
    }
    return lines;
}

void checkRecord(const char *buffer, uint32_t number) {
    EVENTLOGRECORD head;
    memcpy(&head, buffer, sizeof head);
    if (head.Length == 0) {
        VLL_CHECK(std::all_of(buffer, buffer + kRecordBufferSize, [](char c) { return c == 0; }));
        return;
    }
    const size_t source = strlen(buffer + sizeof head);
    const size_t computer = strlen(buffer + sizeof head + source + 1);
    const size_t end = head.StringOffset + strlen(buffer + head.StringOffset) + 1;
    VLL_CHECK(head.RecordNumber == number && head.StringOffset == 66 + source + computer);
    VLL_CHECK(head.Length <= 1024 && head.Length % 4 == 0 && head.Length == (end + 3) / 4 * 4 + 4);
    VLL_CHECK(memcmp(buffer + head.Length - 4, &head.Length, 4) == 0);
    VLL_CHECK((source == 7 || source == 10) && computer <= kTokenLimit);
}

void checkLine(EventLogHandle *handle, const std::vector<std::string> &lines, uint32_t number) {
    VLL_CHECK(vlliGetEventLogRecord(handle, EVENTLOG_SEEK_READ, static_cast<int32_t>(number)));
    char expected[kRecordBufferSize] = {};
    vlliBuildEventLogRecord(lines[number - 1].c_str(), number, expected);
    checkRecord(handle->RecordBuffer, number);
    VLL_CHECK(memcmp(handle->RecordBuffer, expected, sizeof expected) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string all(reinterpret_cast<const char *>(data), size);
    const std::string text[kSyslogFiles] = {all.substr(0, size / 2), all.substr(size / 2)};
    std::vector<std::string> lines = linesOf(text[1]);
    const std::vector<std::string> current = linesOf(text[0]);
    lines.insert(lines.end(), current.begin(), current.end());
    for (int entry = 0; entry < kSyslogFiles; ++entry) {
        SyslogMappings[entry] = {0, text[entry].empty() ? nullptr : text[entry].data(),
                                 static_cast<uint32_t>(text[entry].size())};
    }
    vlliGetSyslogRecordsNumber();
    VLL_CHECK(nSyslogRecordsTotal == lines.size());

    static EventLogHandle handle;
    handle.cursor = {};
    const auto total = static_cast<uint32_t>(lines.size());
    for (uint32_t number = 1; number <= total; ++number) {
        checkLine(&handle, lines, number);
    }
    for (uint32_t number = total; number >= 1; --number) {
        checkLine(&handle, lines, number);
    }
    for (size_t i = 0; i < std::min<size_t>(size, 32) && total != 0; ++i) {
        checkLine(&handle, lines, data[i] % total + 1);
    }
    VLL_CHECK(!vlliGetEventLogRecord(&handle, EVENTLOG_SEEK_READ, static_cast<int32_t>(total + 1)));

    checkRecord(handle.RecordBuffer, 0);
    char buffer[kRecordBufferSize] = {};
    const std::string line = all.substr(0, kLineLimit).c_str();
    vlliBuildEventLogRecord(line.c_str(), 1, buffer);
    checkRecord(buffer, 1);
    return 0;
}
