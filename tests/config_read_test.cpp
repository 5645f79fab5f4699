// Reading profile files: values, lists and the Win32 operations on them.
#include <climits>
#include <cstring>

#include "config.h"
#include "support/faults.h"
#include "support/files.h"
#include "support/fixture.h"
#include "support/private_machine.h"

namespace {

using std::string;

constexpr DWORD kFailed = static_cast<DWORD>(-1);

class ConfigReadTest : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        file_ = FreshDirectory() + "/app.ini";
    }
    const char *put(const string &content) {
        WriteFile(file_, content);
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

struct Got {
    uint32_t result;
    int error;
    string buffer;
    DWORD size;

    bool operator==(const Got &other) const {
        return result == other.result && error == other.error && buffer == other.buffer && size == other.size;
    }
};

std::ostream &operator<<(std::ostream &out, const Got &got) {
    return out << got.result << ", errno " << got.error << ", size " << got.size << ", "
               << testing::PrintToString(got.buffer);
}

// Calls with a buffer of this size, filled with '~', and sees to what is behind it.
template <typename Call>
Got withBuffer(DWORD size, Call call) {
    string room(size + 64, '~');
    Got got = {};
    got.size = size;
    errno = 7777;
    got.result = static_cast<uint32_t>(call(room.data(), &got.size));
    got.error = errno;
    EXPECT_EQ(room.substr(size), string(64, '~')) << "size " << size;
    got.buffer = room.substr(0, size);
    return got;
}

// What a list must be, from the words of its description.
Got expectedList(const std::vector<string> &names, const string &fallback, DWORD size,
                 int error_of_fallback) {
    if (size < 2) {
        return {0, EINVAL, string(size, '~'), size};
    }
    Got got = {0, 7777, string(size, '\0'), size};
    for (const string &name : names) {
        const size_t room = size - 2 > got.result ? size - 2 - got.result : 0;
        if (name.size() > room) {
            got.buffer.replace(got.result, room, name, 0, room);
            return {size - 2, ENOBUFS, got.buffer, size};
        }
        got.buffer.replace(got.result, name.size(), name);
        got.result += static_cast<uint32_t>(name.size()) + 1;
    }
    if (names.empty()) {
        const string stored = fallback.substr(0, size - 1);
        got.buffer.replace(0, stored.size(), stored);
        got.result = static_cast<uint32_t>(stored.size());
        got.error = error_of_fallback != 0 ? error_of_fallback : got.error;
    }
    return got;
}

// The list of "key=value": other room, the same result.
Got expectedEntries(const std::vector<string> &entries, DWORD size) {
    if (size < 2) {
        return {0, EINVAL, string(size, '~'), size};
    }
    Got got = {0, 7777, string(size, '\0'), size};
    for (const string &entry : entries) {
        const size_t room = size - got.result;
        if (entry.size() + 2 > room) {
            const string stored = room > 3 ? entry.substr(0, room - 3) : "";
            got.buffer.replace(got.result, stored.size(), stored);
            return {size - 2, ENOBUFS, got.buffer, size};
        }
        got.buffer.replace(got.result, entry.size(), entry);
        got.result += static_cast<uint32_t>(entry.size()) + 1;
    }
    return got;
}

TEST_F(ConfigReadTest, lists_in_buffers_of_every_size) {
    const char *const with = put(
        "[Net]\na=1\nflag\n'quoted key' = 'x ' ;\n[Audio]\n[net]\nz=1\n[E]\n; none\n[A long section name]\n");
    const std::vector<string> sections = {"Net", "Audio", "net", "E", "A long section name"};
    const std::vector<string> keys = {"a", "flag", "quoted key"};
    const std::vector<string> entries = {"a=1", "flag=", "quoted key=x "};
    const string without = file_ + "2";
    WriteFile(without, "");
    for (DWORD size = 0; size <= 48; ++size) {
        SCOPED_TRACE(size);
        EXPECT_EQ(
            withBuffer(size, [&](char *b, DWORD *s) { return vllReadAllSections("dflt", b, *s, with); }),
            expectedList(sections, "dflt", size, 0));
        EXPECT_EQ(withBuffer(size,
                             [&](char *b, DWORD *s) {
                                 return vllReadAllSections("a default", b, *s, without.c_str());
                             }),
                  expectedList({}, "a default", size, 0));
        EXPECT_EQ(
            withBuffer(size, [&](char *b, DWORD *s) { return vllReadAllValues("NET", "dflt", b, *s, with); }),
            expectedList(keys, "dflt", size, 0));
        for (const char *section : {"E", "Lost"}) {
            EXPECT_EQ(
                withBuffer(size,
                           [&](char *b, DWORD *s) { return vllReadAllValues(section, "none", b, *s, with); }),
                expectedList({}, "none", size, ENOENT));
        }
        EXPECT_EQ(withBuffer(size, [&](char *b,
                                       DWORD *s) { return vllGetPrivateProfileSection("net", b, *s, with); }),
                  expectedEntries(entries, size));
    }
}

TEST_F(ConfigReadTest, values_in_buffers_of_every_size) {
    const string value = "hello, world";
    const char *const file = put("[S]\nk=" + value + "\n");
    const DWORD length = static_cast<DWORD>(value.size());
    const string fallback = "a default";
    for (DWORD size = 0; size <= 40; ++size) {
        SCOPED_TRACE(size);
        const DWORD kept = size == 0 ? 0 : std::min(size - 1, length);
        const bool whole = length < size;
        string buffer(size, '~');
        if (size != 0) {
            buffer.replace(0, kept + 1, value.substr(0, kept) + '\0');
        }
        const int error = whole ? 0 : ENOBUFS;
        EXPECT_EQ(
            withBuffer(size, [&](char *b, DWORD *s) { return vllReadConfigValue(file, "S", "k", b, s); }),
            (Got{whole, error, buffer, whole ? length : length + 1}));
        EXPECT_EQ(withBuffer(size,
                             [&](char *b, DWORD *s) {
                                 return vllGetPrivateProfileString("S", "k", "dflt", b, *s, file);
                             }),
                  (Got{kept, error, buffer, size}));

        string emptied(size, '~');
        if (size != 0) {
            emptied[0] = '\0';
        }
        EXPECT_EQ(
            withBuffer(size, [&](char *b, DWORD *s) { return vllReadConfigValue(file, "S", "x", b, s); }),
            (Got{0, ENOENT, emptied, 0}));
        EXPECT_EQ(
            withBuffer(size, [&](char *b, DWORD *s) { return vllReadConfigValue(file, "X", "k", b, s); }),
            (Got{0, ENOENT, string(size, '~'), size}));

        string filled(size, '\0');
        const DWORD stored = size == 0 ? 0 : std::min<DWORD>(size - 1, 9);
        filled.replace(0, stored, fallback, 0, stored);
        for (const char *key : {"k", "x"}) {
            const char *const section = key[0] == 'k' ? "X" : "S";
            EXPECT_EQ(withBuffer(size,
                                 [&](char *b, DWORD *s) {
                                     return vllGetPrivateProfileString(section, key, fallback.c_str(), b, *s,
                                                                       file);
                                 }),
                      (Got{stored, ENOENT, filled, size}));
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
    errno = 0;
    EXPECT_EQ(vllGetPrivateProfileString(nullptr, nullptr, "d", buffer, sizeof buffer, file), kFailed);
    EXPECT_EQ(errno, EINVAL);
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
    EXPECT_EQ(vllGetPrivateProfileInt("S", "timeout", 7, "/mnt/lost.ini"), 7U);
    EXPECT_EQ(errno, ENOENT);
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
    EXPECT_EQ(vllReadAllSections(nullptr, list.data(), size, file_.c_str()), size - 2);
    EXPECT_EQ(errno, ENOBUFS);
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
        EXPECT_EQ(
            withBuffer(9, [&](char *b, DWORD *s) { return vllReadConfigValue(row.file, "S", "k", b, s); }),
            untouched);
        EXPECT_EQ(withBuffer(9, [&](char *b, DWORD *s) { return vllReadAllSections("d", b, *s, row.file); }),
                  failed);
        EXPECT_EQ(
            withBuffer(9, [&](char *b, DWORD *s) { return vllReadAllValues("S", "d", b, *s, row.file); }),
            failed);
        EXPECT_EQ(withBuffer(9, [&](char *b,
                                    DWORD *s) { return vllGetPrivateProfileSection("S", b, *s, row.file); }),
                  untouched);
        EXPECT_EQ(withBuffer(9,
                             [&](char *b, DWORD *s) {
                                 return vllGetPrivateProfileString("S", "k", "dflt", b, *s, row.file);
                             }),
                  (Got{4, row.error, string("dflt") + string(5, '\0'), 9}));
    }
}

// A file that breaks off is not taken for one that ends there.
TEST_F(ConfigReadTest, read_error_in_the_middle) {
    const char *const file = put("[S]\na=1\n" + string(10000, ';') + "\nk=v\n");
    char buffer[64];
    DWORD size = sizeof buffer;
    const FailCall fail("read", 2, EIO, 100);
    EXPECT_TRUE(Fails(vllReadConfigValue(file, "S", "k", buffer, &size), EIO));
    EXPECT_EQ(size, sizeof buffer);
    EXPECT_TRUE(fail.happened());
    const FailCall again("read", 2, EIO, 100);
    EXPECT_EQ(vllReadAllValues("S", "d", buffer, sizeof buffer, file), kFailed);
    EXPECT_EQ(errno, EIO);
    const FailCall third("read", 2, EIO, 100);
    EXPECT_EQ(vllGetPrivateProfileSection("S", buffer, sizeof buffer, file), 0U);
    EXPECT_EQ(errno, EIO);
    const FailCall interrupted("read", 2, EINTR);
    EXPECT_TRUE(vllReadConfigValue(file, "S", "k", buffer, &size));
    EXPECT_TRUE(interrupted.happened());
}

TEST_F(ConfigReadTest, null_arguments) {
    const char *const file = put("[S]\nk=v\n");
    char buffer[8];
    DWORD size = sizeof buffer;
    const auto refused = [](uint32_t result, uint32_t expected) {
        const int error = errno;
        errno = 0;
        return result == expected && error == EINVAL;
    };
    EXPECT_TRUE(refused(static_cast<uint32_t>(vllReadConfigValue(file, "S", nullptr, buffer, &size)), 0));
    EXPECT_TRUE(refused(static_cast<uint32_t>(vllReadConfigValue(file, "S", "k", nullptr, &size)), 0));
    EXPECT_TRUE(refused(static_cast<uint32_t>(vllReadConfigValue(file, "S", "k", buffer, nullptr)), 0));
    EXPECT_TRUE(refused(vllReadAllSections(nullptr, nullptr, 8, file), 0));
    EXPECT_TRUE(refused(vllReadAllValues("S", nullptr, nullptr, 8, file), 0));
    EXPECT_TRUE(refused(vllGetPrivateProfileSection("S", nullptr, 8, file), 0));
    EXPECT_TRUE(refused(vllGetPrivateProfileString("S", "k", nullptr, nullptr, 8, file), 0));
}

}  // namespace
