// Reading profile files: values, lists and the Win32 operations on them.
#include <algorithm>
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
constexpr int kUnchanged = 7777;  // the last error before each call

// Result, errno, buffer and size.
using Got = std::tuple<uint32_t, int, string, DWORD>;

// An operation that lacks its buffer and the buffer's size.
using Read = std::function<uint32_t(char *buffer, DWORD *size)>;

Read value(const char *file, const char *section, const char *key) {
    return [=](char *buffer, DWORD *size) { return vllReadConfigValue(file, section, key, buffer, size); };
}
Read profileString(const char *file, const char *section, const char *key, const char *fallback) {
    return [=](char *buffer, DWORD *size) {
        return vllGetPrivateProfileString(section, key, fallback, buffer, *size, file);
    };
}
Read sections(const char *file, const char *fallback) {
    return [=](char *buffer, DWORD *size) { return vllReadAllSections(fallback, buffer, *size, file); };
}
Read keys(const char *file, const char *section, const char *fallback) {
    return
        [=](char *buffer, DWORD *size) { return vllReadAllValues(section, fallback, buffer, *size, file); };
}
Read entries(const char *file, const char *section) {
    return
        [=](char *buffer, DWORD *size) { return vllGetPrivateProfileSection(section, buffer, *size, file); };
}

// Reads into a buffer of this size, filled with '~'; nothing may be written behind it.
Got withBuffer(DWORD size, const Read &read) {
    string buffer(size + 64, '~');
    DWORD size_after = size;
    errno = kUnchanged;
    const uint32_t result = read(buffer.data(), &size_after);
    const int error = errno;
    EXPECT_EQ(buffer.substr(size), string(64, '~')) << "size " << size;
    return {result, error, buffer.substr(0, size), size_after};
}

// A list of strings. The one that does not fit is cut to what is left of the buffer, less a number of bytes.
Got expectedList(const std::vector<string> &strings, DWORD size, DWORD less = 0) {
    string buffer(size, '\0');
    uint32_t count = 0;
    for (const string &text : strings) {
        const DWORD left = size > count + 2 ? size - 2 - count : 0;
        if (text.size() > left) {
            const DWORD kept = left > less ? left - less : 0;
            return {size - 2, ENOBUFS, buffer.replace(count, kept, text, 0, kept), size};
        }
        buffer.replace(count, text.size(), text);
        count += static_cast<uint32_t>(text.size()) + 1;
    }
    return {count, kUnchanged, buffer, size};
}

// What is stored instead, in a cleared buffer.
Got expectedDefault(const string &fallback, DWORD size, int error) {
    const DWORD stored = size == 0 ? 0 : std::min(size - 1, static_cast<DWORD>(fallback.size()));
    return {stored, error, fallback.substr(0, stored) + string(size - stored, '\0'), size};
}

class ConfigReadTest : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        file_ = freshDirectory() + "/app.ini";
    }
    const char *put(const string &content) {
        writeFile(file_, content);
        return file_.c_str();
    }
    // The value, or "(none)" with ENOENT.
    string valueOf(const char *section, const char *key) {
        const auto [result, error, buffer, size] =
            withBuffer(kConfigNameSize, value(file_.c_str(), section, key));
        EXPECT_EQ(error, result == TRUE ? 0 : ENOENT);
        return result == TRUE ? buffer.substr(0, size) : "(none)";
    }

    string file_;
};

TEST_F(ConfigReadTest, values) {
    put("loose = 1 ; before any header\n\n[Net]\nAddress=10.0.0.1\n; address=10.0.0.2\n[not a header\n"
        "address=10.0.0.3\nPORT = 80\r\nbroken='\nflag\n@=at\n[net]\naddress=10.0.0.4\nonly=here\n"
        "[ Net ]\nblank=yes\n[Empty]\n[Last]\n\xc4=no newline");
    const struct {
        const char *section, *key, *expected;
    } rows[] = {
        {"Net", "Address", "10.0.0.1"}, {"NET", "aDDRESS", "10.0.0.1"},
        {"Net", "port", "80"},          {"Net", "flag", ""},
        {"Net", "only", "(none)"},      {"Net", "broken", "(none)"},
        {"Net", "`", "(none)"},         {" Net ", "blank", "yes"},
        {" Net", "blank", "(none)"},    {"Empty", "end", "(none)"},
        {"Last", "\xc4", "no newline"}, {"Last", "\xe4", "(none)"},
        {nullptr, "loose", "1"},        {nullptr, "address", "(none)"},
        {"Lost", "end", "(none)"},      {"Net", "", "(none)"},
        {"", "loose", "(none)"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(valueOf(row.section, row.key), row.expected) << row.key;
    }
}

TEST_F(ConfigReadTest, lists_in_buffers_of_every_size) {
    const char *const file = put(
        "[Net]\na=1\nflag\n'quoted key' = 'x ' ;\n[Audio]\n[net]\nz=1\n[E]\n; none\n[A long section name]\n");
    const string empty = file_ + "2";
    writeFile(empty, "");
    const Got refused[] = {{0, EINVAL, "", 0}, {0, EINVAL, "~", 1}};
    for (DWORD size = 0; size <= 48; ++size) {
        SCOPED_TRACE(size);
        const std::pair<Read, Got> rows[] = {
            {sections(file, "dflt"), expectedList({"Net", "Audio", "net", "E", "A long section name"}, size)},
            {sections(empty.c_str(), "a default"), expectedDefault("a default", size, kUnchanged)},
            {keys(file, "NET", "dflt"), expectedList({"a", "flag", "quoted key"}, size)},
            {keys(file, "E", "none"), expectedDefault("none", size, ENOENT)},
            {keys(file, "Lost", nullptr), expectedDefault("", size, ENOENT)},
            {entries(file, "net"), expectedList({"a=1", "flag=", "quoted key=x "}, size, 1)},
            {entries(file, "E"), expectedDefault("", size, kUnchanged)},
            {entries(file, "Lost"), expectedDefault("", size, ENOENT)},
            {profileString(file, nullptr, "x", "dflt"), withBuffer(size, sections(file, "dflt"))},
            {profileString(file, "E", nullptr, "none"), withBuffer(size, keys(file, "E", "none"))},
        };
        for (const auto &[read, expected] : rows) {
            EXPECT_EQ(withBuffer(size, read), size < 2 ? refused[size] : expected);
        }
    }
}

TEST_F(ConfigReadTest, values_in_buffers_of_every_size) {
    const string text = "hello, world";
    const char *const file = put("[S]\nk=" + text + "\n");
    const auto length = static_cast<DWORD>(text.size());
    for (DWORD size = 0; size <= 40; ++size) {
        SCOPED_TRACE(size);
        const DWORD kept = size == 0 ? 0 : std::min(size - 1, length);
        const bool whole = length < size;
        string buffer(size, '~');
        string emptied(size, '~');
        if (size != 0) {
            buffer.replace(0, kept + 1, text.substr(0, kept) + '\0');
            emptied[0] = '\0';
        }
        const int error = whole ? 0 : ENOBUFS;
        EXPECT_EQ(withBuffer(size, value(file, "S", "k")),
                  (Got{whole, error, buffer, whole ? length : length + 1}));
        EXPECT_EQ(withBuffer(size, value(file, "S", "x")), (Got{0, ENOENT, emptied, 0}));
        EXPECT_EQ(withBuffer(size, value(file, "X", "k")), (Got{0, ENOENT, string(size, '~'), size}));
        EXPECT_EQ(withBuffer(size, profileString(file, "S", "k", "dflt")), (Got{kept, error, buffer, size}));
        EXPECT_EQ(withBuffer(size, profileString(file, "X", "x", "a default")),
                  expectedDefault("a default", size, ENOENT));
        EXPECT_EQ(withBuffer(size, profileString(file, "S", "x", nullptr)),
                  expectedDefault("", size, ENOENT));
    }
}

TEST_F(ConfigReadTest, profile_int) {
    const string zeros(47, '0');
    for (const auto &[text, expected] : {std::pair{string("  42 ms"), 42},
                                         {"12abc", 12},
                                         {"abc", 0},
                                         {"0x10", 0},
                                         {"-7", -7},
                                         {"+8", 8},
                                         {"' \t9'", 9},
                                         {"", 0},
                                         {"2147483647", INT_MAX},
                                         {"4294967296", INT_MAX},
                                         {"-99999999999999999999", INT_MIN},
                                         {zeros + "12", 12},
                                         {zeros + "012", 5}}) {  // 50 bytes: too many
        const char *const file = put("[S]\ntimeout=" + text + "\n");
        EXPECT_THAT(static_cast<int32_t>(vllGetPrivateProfileInt("S", "timeout", 5, file)),
                    Yields(expected, expected == 5 ? ENOBUFS : 0))
            << text;
    }
    EXPECT_THAT(vllGetPrivateProfileInt("S", "timeout", 7, "/mnt/lost.ini"), FailsWith(ENOENT, 7U));
}

// Pieces of 4095 bytes are lines of their own; a line of 4095 bytes with its newline is still one.
TEST_F(ConfigReadTest, long_lines) {
    for (const size_t length : {4095U, 4096U, 4097U}) {  // of a line, with its newline
        put("[S]\nk=v ;" + string(length - 6, 'x') + "\nafter=1\n");
        EXPECT_EQ(valueOf("S", "after"), "1");
        EXPECT_EQ(valueOf("S", "x"), length == 4097 ? "" : "(none)") << length;
    }
    // An entry and a header where the pieces begin.
    put("[S]\n" + string(4095, ';') + "second=2\n" + string(size_t{2} * 4095, ';') + "[T]\nt=3\n" +
        string(4095, '#') + "u=4");
    EXPECT_EQ(valueOf("S", "second"), "2");
    EXPECT_EQ(valueOf("T", "t"), "3");
    EXPECT_EQ(valueOf("T", "u"), "4");
}

// What cannot be read: nothing is stored in lists, and a single value is its default.
TEST_F(ConfigReadTest, unreadable_files) {
    const struct {
        const char *file;
        int error;
    } rows[] = {{"/mnt/lost.ini", ENOENT}, {"/mnt", EISDIR}, {"/proc/self/mem", EIO}, {nullptr, EINVAL}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.error);
        const Got untouched = {0, row.error, string(9, '~'), 9};
        const Got failed = {kFailed, row.error, string(9, '~'), 9};
        EXPECT_EQ(withBuffer(9, value(row.file, "S", "k")), untouched);
        EXPECT_EQ(withBuffer(9, entries(row.file, "S")), untouched);
        EXPECT_EQ(withBuffer(9, sections(row.file, "d")), failed);
        EXPECT_EQ(withBuffer(9, keys(row.file, "S", "d")), failed);
        EXPECT_EQ(withBuffer(9, profileString(row.file, "S", "k", "dflt")),
                  expectedDefault("dflt", 9, row.error));
    }
}

// A file whose reading fails in the middle is not taken for one that ends there.
TEST_F(ConfigReadTest, read_error_in_the_middle) {
    const char *const file = put("[S]\na=1\n" + string(10000, ';') + "\nk=v\n");
    const Read reads[] = {value(file, "S", "k"), entries(file, "S"), keys(file, "S", "d"),
                          sections(file, "d")};
    for (const Read &read : reads) {
        const FailCall fail("read", 2, EIO, 100);
        const auto [result, error, buffer, size] = withBuffer(64, read);
        EXPECT_EQ(result, &read < reads + 2 ? 0 : kFailed);
        EXPECT_EQ(error, EIO);
        EXPECT_EQ(size, 64U);
    }
    const FailCall interrupted("read", 2, EINTR);
    EXPECT_EQ(valueOf("S", "k"), "v");
    EXPECT_TRUE(interrupted.happened());
}

TEST_F(ConfigReadTest, refused_arguments) {
    const char *const file = put("[S]\nk=v\n");
    char buffer[8];
    DWORD size = sizeof buffer;
    EXPECT_THAT(vllReadConfigValue(file, "S", nullptr, buffer, &size), FailsWith(EINVAL));
    EXPECT_THAT(vllReadConfigValue(file, "S", "k", buffer, nullptr), FailsWith(EINVAL));
    for (const Read &read : {value(file, "S", "k"), sections(file, nullptr), keys(file, "S", nullptr),
                             entries(file, "S"), profileString(file, "S", "k", nullptr)}) {
        EXPECT_THAT(read(nullptr, &size), FailsWith(EINVAL));
    }
    EXPECT_THAT(vllGetPrivateProfileString(nullptr, nullptr, "d", buffer, sizeof buffer, file),
                FailsWith(EINVAL, kFailed));
}

}  // namespace
