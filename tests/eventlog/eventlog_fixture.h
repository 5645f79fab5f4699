// The log files of a test, and reads that check what they bring.
#pragma once

#include <fcntl.h>
#include <unistd.h>
#include <cstring>

#include "eventlog/eventlog_lines.h"

#include "support/fixture.h"
#include "support/matchers.h"
#include "support/private_machine.h"

constexpr char kCurrent[] = "/var/log/vservices";
constexpr char kOlder[] = "/var/log/vservices.0";
constexpr DWORD kForwards = EVENTLOG_SEQUENTIAL_READ | EVENTLOG_FORWARDS_READ;
constexpr DWORD kBackwards = EVENTLOG_SEQUENTIAL_READ | EVENTLOG_BACKWARDS_READ;
constexpr DWORD kSeek = EVENTLOG_SEEK_READ | EVENTLOG_FORWARDS_READ;
constexpr DWORD kSeekBack = EVENTLOG_SEEK_READ | EVENTLOG_BACKWARDS_READ;

using Texts = std::vector<std::string>;

inline void put(const char *path, const std::string &content, int flags = O_TRUNC) {
    const int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0644);
    ASSERT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    close(fd);
}

inline std::string line(const std::string &message) {
    return "Nov 16 16:21:16 unit1 user.info gateway: " + message + "\n";
}

inline std::string numberedLines(int count) {
    std::string text;
    for (int i = 1; i <= count; ++i) {
        text += line(std::to_string(i));
    }
    return text;
}

struct Record {
    uint32_t number;
    WORD type;
    FILETIME time;
    std::string source, computer, message;
};

inline std::string bytesOf(const Record &record) {
    const std::string nul(1, '\0');
    std::string texts = record.source + nul + record.computer + nul + record.message + nul;
    EVENTLOGRECORD head = {};
    head.Length = static_cast<DWORD>((sizeof head + texts.size() + 3) / 4 * 4 + 4);
    head.Reserved = 0x654C664C;
    head.RecordNumber = record.number;
    head.TimeGenerated = head.TimeWritten = record.time;
    head.EventType = record.type;
    head.NumStrings = 1;
    head.StringOffset = static_cast<DWORD>(66 + record.source.size() + record.computer.size());
    texts.resize(head.Length - sizeof head - 4);
    const auto bytes = [](const auto &value) {
        return std::string(reinterpret_cast<const char *>(&value), sizeof value);
    };
    return bytes(head) + texts + bytes(head.Length);
}

// Takes a buffer of records apart and checks every byte of them.
inline std::vector<Record> split(const char *data, size_t size) {
    std::vector<Record> records;
    for (size_t at = 0; at < size;) {
        EVENTLOGRECORD head;
        memcpy(&head, data + at, sizeof head);
        if (head.Length < 72 || at + head.Length > size) {
            ADD_FAILURE() << "length " << head.Length << " at " << at;
            break;
        }
        const char *const source = data + at + sizeof head;
        records.push_back({head.RecordNumber, head.EventType, head.TimeGenerated, source,
                           source + strlen(source) + 1, data + at + head.StringOffset});
        EXPECT_EQ(std::string(data + at, head.Length), bytesOf(records.back()));
        at += head.Length;
    }
    return records;
}

inline Texts messages(const std::vector<Record> &records) {
    Texts texts;
    for (const Record &record : records) {
        texts.push_back(record.message);
    }
    return texts;
}

class EventLogTest : public LibraryTest {
  protected:
    static void SetUpTestSuite() { coverDirectory("/var/log", "256m"); }
    void SetUp() override {
        remove(kCurrent);
        remove(kOlder);
        LibraryTest::SetUp();
    }
    void TearDown() override {
        if (log != nullptr) {
            closeLog();
        }
        EXPECT_TRUE(SyslogMappings[0].pData == nullptr && SyslogMappings[1].pData == nullptr);
        EXPECT_EQ(nSyslogRecordsTotal, 0U);
        LibraryTest::TearDown();
    }
    void openLog() {
        log = vllOpenEventLog(nullptr, nullptr);
        ASSERT_NE(log, nullptr);
    }
    void closeLog() {
        EXPECT_TRUE(vllCloseEventLog(log));
        log = nullptr;
    }
    static uint32_t count() {
        DWORD number = 4711;
        EXPECT_TRUE(vllGetNumberOfEventLogRecords(nullptr, &number));
        return number;
    }
    // One read with a buffer of this size; error is 0 when it succeeds.
    std::vector<Record> read(DWORD flags, DWORD number, DWORD size = 65536) {
        std::vector<char> buffer(size);  // exactly so many bytes, for the sanitizer
        DWORD got = 4711;
        needed = 4711;
        errno = 0;
        const BOOL ok = vllReadEventLog(log, flags, number, buffer.data(), size, &got, &needed);
        error = ok ? 0 : errno;
        EXPECT_EQ(ok, got != 0);
        return split(buffer.data(), got);
    }
    void expectNothing(DWORD flags, DWORD number, int reason) {
        EXPECT_TRUE(read(flags, number).empty());
        EXPECT_EQ(error, reason);
    }
    // All that sequential reads bring, in pieces of the buffer's size.
    std::vector<Record> readAll(DWORD flags, DWORD size = 65536) {
        std::vector<Record> all;
        do {
            const std::vector<Record> some = read(flags, 0, size);
            all.insert(all.end(), some.begin(), some.end());
        } while (error == 0);
        EXPECT_EQ(error, ERANGE);
        return all;
    }

    void *log = nullptr;
    DWORD needed = 0;
    int error = 0;
};
