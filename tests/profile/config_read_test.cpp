// Reading profile files: values, lists and the Win32 operations on them.
#include <climits>
#include <cstring>
#include <tuple>

#include "profile/config.h"
#include "support/faults.h"
#include "support/files.h"
#include "support/fixture.h"
#include "support/matchers.h"
#include "support/private_machine.h"

namespace {

using std::string;

constexpr DWORD kFailed = static_cast<DWORD>(-1);

class ConfigReadTest : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        file_ = freshDirectory() + "/app.ini";
    }
    const char *put(const string &content) {
        writeFile(file_, content);
        errno = 0;
        return file_.c_str();
    }
    // "value", or "(error number)".
    string value(const char *section, const char *key) {
        char text[kConfigNameSize];
        DWORD size = sizeof text;
        if (!vllReadConfigValue(file_.c_str(), section, key, text, &size)) {
            return "(" + std::to_string(errno) + ")";
        }
        EXPECT_EQ(errno, 0);
        EXPECT_EQ(size, strlen(text));
        return text;
    }

    string file_;
};

const char kSample[] =
    "loose = 1 ; before any header\n"
    "\n"
    "[Net]\n"
    "Address=10.0.0.1\n"
    "; address=10.0.0.2\n"
    "[not a header\n"
    "address=10.0.0.3\n"
    "PORT = 80\r\n"
    "broken='\n"
    "flag\n"
    "[net]\n"
    "address=10.0.0.4\n"
    "only=here\n"
    "[ Net ]\n"
    "blank=yes\n"
    "[Empty]\n"
    "[Last]\n"
    "end=no newline";

TEST_F(ConfigReadTest, values) {
    put(kSample);
    const string missing = "(" + std::to_string(ENOENT) + ")";
    const struct {
        const char *section, *key;
        string expected;
    } rows[] = {
        {"Net", "Address", "10.0.0.1"}, {"NET", "aDDRESS", "10.0.0.1"},
        {"Net", "port", "80"},          {"Net", "flag", ""},
        {"Net", "only", missing},       {"Net", "broken", missing},
        {" Net ", "blank", "yes"},      {" Net", "blank", missing},
        {"Empty", "end", missing},      {"Last", "end", "no newline"},
        {nullptr, "loose", "1"},        {nullptr, "address", missing},
        {"Lost", "end", missing},       {"Net", "", missing},
        {"", "loose", missing},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(value(row.section, row.key), row.expected)
            << (row.section != nullptr ? row.section : "(null)") << ", " << row.key;
    }
}

// Result, errno, buffer and size.
using Got = std::tuple<uint32_t, int, string, DWORD>;

// The operations, with a buffer and its size left open.
using Read = std::function<uint32_t(char *buffer, DWORD *size)>;

Read Value(const char *file, const char *section, const char *key) {
    return [=](char *b, DWORD *size) { return vllReadConfigValue(file, section, key, b, size); };
}
Read ProfileString(const char *file, const char *section, const char *key, const char *fallback) {
    return [=](char *b, DWORD *size) {
        return vllGetPrivateProfileString(section, key, fallback, b, *size, file);
    };
}
Read Sections(const char *file, const char *fallback) {
    return [=](char *b, DWORD *size) { return vllReadAllSections(fallback, b, *size, file); };
}
Read Keys(const char *file, const char *section, const char *fallback) {
    return [=](char *b, DWORD *size) { return vllReadAllValues(section, fallback, b, *size, file); };
}
Read Entries(const char *file, const char *section) {
    return [=](char *b, DWORD *size) { return vllGetPrivateProfileSection(section, b, *size, file); };
}

// Reads into a buffer of this size, filled with '~', and sees to what is behind it.
Got withBuffer(DWORD size, const Read &read) {
    string room(size + 64, '~');
    DWORD size_after = size;
    errno = 7777;
    const uint32_t result = read(room.data(), &size_after);
    const int error = errno;
    EXPECT_EQ(room.substr(size), string(64, '~')) << "size " << size;
    return {result, error, room.substr(0, size), size_after};
}

// What a list of strings must be, from the words of its description. The string that does not fit is cut to the room
// that is left, less a number of bytes.
Got expectedList(const std::vector<string> &strings, DWORD size, DWORD less = 0) {
    if (size < 2) {
        return {0, EINVAL, string(size, '~'), size};
    }
    string buffer(size, '\0');
    uint32_t count = 0;
    for (const string &text : strings) {
        const DWORD room = size - 2 > count ? size - 2 - count : 0;
        if (text.size() > room) {
            const DWORD kept = room > less ? room - less : 0;
            return {size - 2, ENOBUFS, buffer.replace(count, kept, text, 0, kept), size};
        }
        buffer.replace(count, text.size(), text);
        count += static_cast<uint32_t>(text.size()) + 1;
    }
    return {count, 7777, buffer, size};
}

// What is stored instead, in a cleared buffer.
Got expectedDefault(const string &fallback, DWORD size, int error) {
    const DWORD stored = size == 0 ? 0 : std::min(size - 1, static_cast<DWORD>(fallback.size()));
    return {stored, error, fallback.substr(0, stored) + string(size - stored, '\0'), size};
}

TEST_F(ConfigReadTest, lists_in_buffers_of_every_size) {
    const char *const with = put(
        "[Net]\na=1\nflag\n'quoted key' = 'x ' ;\n[Audio]\n[net]\nz=1\n[E]\n; none\n[A long section name]\n");
    const string without = file_ + "2";
    writeFile(without, "");
    for (DWORD size = 0; size <= 48; ++size) {
        SCOPED_TRACE(size);
        EXPECT_EQ(withBuffer(size, Sections(with, "dflt")),
                  expectedList({"Net", "Audio", "net", "E", "A long section name"}, size));
        EXPECT_EQ(withBuffer(size, Keys(with, "NET", "dflt")),
                  expectedList({"a", "flag", "quoted key"}, size));
        EXPECT_EQ(withBuffer(size, Entries(with, "net")),
                  expectedList({"a=1", "flag=", "quoted key=x "}, size, 1));
        if (size >= 2) {
            EXPECT_EQ(withBuffer(size, Sections(without.c_str(), "a default")),
                      expectedDefault("a default", size, 7777));
            EXPECT_EQ(withBuffer(size, Keys(with, "E", "none")), expectedDefault("none", size, ENOENT));
            EXPECT_EQ(withBuffer(size, Keys(with, "Lost", "none")), expectedDefault("none", size, ENOENT));
            EXPECT_EQ(withBuffer(size, Entries(with, "E")), expectedDefault("", size, 7777));
            EXPECT_EQ(withBuffer(size, Entries(with, "Lost")), expectedDefault("", size, ENOENT));
        }
    }
}

TEST_F(ConfigReadTest, values_in_buffers_of_every_size) {
    const string value = "hello, world";
    const char *const file = put("[S]\nk=" + value + "\n");
    const auto length = static_cast<DWORD>(value.size());
    for (DWORD size = 0; size <= 40; ++size) {
        SCOPED_TRACE(size);
        const DWORD kept = size == 0 ? 0 : std::min(size - 1, length);
        const bool whole = length < size;
        string buffer(size, '~');
        string emptied(size, '~');
        if (size != 0) {
            buffer.replace(0, kept + 1, value.substr(0, kept) + '\0');
            emptied[0] = '\0';
        }
        const int error = whole ? 0 : ENOBUFS;
        EXPECT_EQ(withBuffer(size, Value(file, "S", "k")),
                  (Got{whole, error, buffer, whole ? length : length + 1}));
        EXPECT_EQ(withBuffer(size, Value(file, "S", "x")), (Got{0, ENOENT, emptied, 0}));
        EXPECT_EQ(withBuffer(size, Value(file, "X", "k")), (Got{0, ENOENT, string(size, '~'), size}));
        EXPECT_EQ(withBuffer(size, ProfileString(file, "S", "k", "dflt")), (Got{kept, error, buffer, size}));
        for (const char *section : {"X", "S"}) {
            EXPECT_EQ(withBuffer(size, ProfileString(file, section, "x", "a default")),
                      expectedDefault("a default", size, ENOENT));
        }
    }
}

TEST_F(ConfigReadTest, profile_string_chooses_what_to_list) {
    const char *const file = put("[Net]\na=1\nb\n[Audio]\n");
    char buffer[32];
    EXPECT_EQ(vllGetPrivateProfileString(nullptr, "x", nullptr, buffer, sizeof buffer, file), 10U);
    EXPECT_EQ(memcmp(buffer, "Net\0Audio\0", 11), 0);
    EXPECT_EQ(vllGetPrivateProfileString("Net", nullptr, nullptr, buffer, sizeof buffer, file), 4U);
    EXPECT_EQ(memcmp(buffer, "a\0b\0", 5), 0);
    EXPECT_THAT(vllGetPrivateProfileString(nullptr, nullptr, "d", buffer, sizeof buffer, file),
                FailsWith(EINVAL, kFailed));
    EXPECT_EQ(vllGetPrivateProfileString("Net", "lost", nullptr, buffer, sizeof buffer, file), 0U);
    EXPECT_STREQ(buffer, "");
}

TEST_F(ConfigReadTest, profile_int) {
    const struct {
        const char *text;
        int32_t expected;
    } rows[] = {{"  42 ms", 42},
                {"12abc", 12},
                {"abc", 0},
                {"0x10", 0},
                {"-7", -7},
                {"+8", 8},
                {"' \t9'", 9},
                {"", 0},
                {"2147483647", INT32_MAX},
                {"4294967296", INT32_MAX},
                {"-99999999999999999999", INT32_MIN},
                {"0000000000000000000000000000000000000000000000012", 12},   // 49 bytes
                {"00000000000000000000000000000000000000000000000012", 5}};  // 50 bytes
    for (const auto &row : rows) {
        const char *const file = put(string("[S]\ntimeout=") + row.text + "\n");
        EXPECT_EQ(static_cast<int32_t>(vllGetPrivateProfileInt("S", "timeout", 5, file)), row.expected)
            << row.text;
    }
    EXPECT_EQ(errno, ENOBUFS);
    EXPECT_EQ(static_cast<int32_t>(vllGetPrivateProfileInt("S", "lost", -5, file_.c_str())), -5);
    EXPECT_EQ(static_cast<int32_t>(vllGetPrivateProfileInt("S", nullptr, -6, file_.c_str())), -6);
    EXPECT_THAT(vllGetPrivateProfileInt("S", "timeout", 7, "/mnt/lost.ini"), FailsWith(ENOENT, 7U));
}

// Pieces of 4095 bytes are lines of their own; a line of 4095 bytes with its newline is still one.
TEST_F(ConfigReadTest, long_lines) {
    const auto line = [](size_t length) { return "k=v ;" + string(length - 6, 'x') + "\n"; };
    const struct {
        size_t length;
        string rest;  // of the line, behind its first piece
        string key;   // that the rest makes
    } rows[] = {{4095, "", ""}, {4096, "", ""}, {4097, "x", "x"}, {10000, string(1809, 'x'), ""}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.length);
        const char *const file = put("[S]\n" + line(row.length) + "after=1\n");
        EXPECT_EQ(value("S", "k"), "v");
        EXPECT_EQ(value("S", "after"), "1");
        string list(10000, '~');
        const DWORD count = vllReadAllValues("S", nullptr, list.data(), 10000, file);
        EXPECT_EQ(list.substr(0, count), string("k\0", 2) + row.key +
                                             (row.key.empty() ? "" : string(1, '\0')) + string("after\0", 6));
    }
    // The same length, with an entry and a header where the pieces begin.
    put("[S]\n" + string(4095, ';') + "second=2\n" + string(4095, ';') + "[T]\nt=3\n" + string(4095, '#') +
        "u=4");
    EXPECT_EQ(value("S", "second"), "2");
    EXPECT_EQ(value("T", "t"), "3");
    EXPECT_EQ(value("T", "u"), "4");
}

TEST_F(ConfigReadTest, big_file) {
    string content;
    while (content.size() < 20 << 20) {
        content += "[section " + std::to_string(content.size()) + "]\nkey=value\n; comment\n\n";
    }
    const string last = "[last]\nkey=found";
    put(content + last);
    EXPECT_EQ(value("last", "key"), "found");
    EXPECT_EQ(value("section 0", "key"), "value");
    std::vector<char> list(4 << 20);
    const DWORD size = static_cast<DWORD>(list.size());
    EXPECT_THAT(vllReadAllSections(nullptr, list.data(), size, file_.c_str()), FailsWith(ENOBUFS, size - 2));
}

// What cannot be read: nothing is stored in lists, and a single value is its default.
TEST_F(ConfigReadTest, unreadable_files) {
    const struct {
        const char *file;
        int error;
    } rows[] = {{"/mnt/lost.ini", ENOENT}, {"/mnt", EISDIR},        {"", ENOENT},
                {"/dev/null/x", ENOTDIR},  {"/proc/self/mem", EIO}, {nullptr, EINVAL}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.file != nullptr ? row.file : "(null)");
        const Got untouched = {0, row.error, string(9, '~'), 9};
        const Got failed = {kFailed, row.error, string(9, '~'), 9};
        EXPECT_EQ(withBuffer(9, Value(row.file, "S", "k")), untouched);
        EXPECT_EQ(withBuffer(9, Entries(row.file, "S")), untouched);
        EXPECT_EQ(withBuffer(9, Sections(row.file, "d")), failed);
        EXPECT_EQ(withBuffer(9, Keys(row.file, "S", "d")), failed);
        EXPECT_EQ(withBuffer(9, ProfileString(row.file, "S", "k", "dflt")),
                  expectedDefault("dflt", 9, row.error));
    }
}

// A file that breaks off is not taken for one that ends there.
TEST_F(ConfigReadTest, read_error_in_the_middle) {
    const char *const file = put("[S]\na=1\n" + string(10000, ';') + "\nk=v\n");
    const Read reads[] = {Value(file, "S", "k"), Entries(file, "S"), Keys(file, "S", "d"),
                          Sections(file, "d")};
    for (const Read &read : reads) {
        const FailCall fail("read", 2, EIO, 100);
        const auto [result, error, buffer, size] = withBuffer(64, read);
        EXPECT_EQ(result, &read < reads + 2 ? 0 : kFailed);
        EXPECT_EQ(error, EIO);
        EXPECT_EQ(size, 64U);
    }
    const FailCall interrupted("read", 2, EINTR);
    EXPECT_EQ(value("S", "k"), "v");
    EXPECT_TRUE(interrupted.happened());
}

TEST_F(ConfigReadTest, null_arguments) {
    const char *const file = put("[S]\nk=v\n");
    char buffer[8];
    DWORD size = sizeof buffer;
    EXPECT_THAT(vllReadConfigValue(file, "S", nullptr, buffer, &size), FailsWith(EINVAL));
    EXPECT_THAT(vllReadConfigValue(file, "S", "k", buffer, nullptr), FailsWith(EINVAL));
    for (const Read &read : {Value(file, "S", "k"), Sections(file, nullptr), Keys(file, "S", nullptr),
                             Entries(file, "S"), ProfileString(file, "S", "k", nullptr)}) {
        errno = 0;
        EXPECT_THAT(read(nullptr, &size), FailsWith(EINVAL));
    }
}

}  // namespace
