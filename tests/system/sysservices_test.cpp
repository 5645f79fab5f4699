#include <pwd.h>
#include <sched.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <wordexp.h>
#include <climits>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>

#include "support/child.h"
#include "support/faults.h"
#include "support/files.h"
#include "support/fixture.h"
#include "support/matchers.h"
#include "support/private_machine.h"
#include "support/shown_process.h"
#include "vwincompat/system.h"

namespace {

int reboot_command;
int reboot_error;

}  // namespace

// Stands in for reboot(2) in this binary: the machine stays on. On the emulated target target_poweroff calls
// the real one.
extern "C" int __wrap_reboot(int command);
extern "C" int __wrap_reboot(int command) {
    reboot_command = command;
    errno = reboot_error;
    return reboot_error == 0 ? 0 : -1;
}

namespace {

// ---- power ----

class PowerTest : public LibraryTest {
  protected:
    // Runs body in a child whose /usr/sbin and PATH hold stand-ins only, which write their arguments to a
    // file: what was written.
    std::string withStandIns(int status, const std::function<void()> &body) {
        const std::string directory = makeProgramDirectory();
        const std::string out = directory + "/out";
        const std::string script = "#!/bin/sh\nprintf '%s|' \"${0##*/}\" \"$@\" > " + out + "\nexit " +
                                   std::to_string(status) + "\n";
        expectInChild([&] {
            if (unshare(CLONE_NEWNS) != 0) {
                return 1;
            }
            char real[PATH_MAX];
            coverDirectory(realpath("/sbin", real) != nullptr ? real : "/sbin");
            if (status >= 0) {
                makeScript("/sbin", "reboot", script);
                makeScript(directory, "shutdown", script);
            }
            setenv("PATH", directory.c_str(), 1);
            body();
            return 0;
        });
        return readFile(out);
    }
};

int reap() {
    int status = -1;
    EXPECT_GT(waitpid(-1, &status, 0), 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(PowerTest, power_off) {
    reboot_error = 0;
    EXPECT_TRUE(vllExitWindowsEx(0));
    EXPECT_EQ(static_cast<uint32_t>(reboot_command), 0x4321FEDCU);
    reboot_error = EPERM;
    EXPECT_THAT(vllExitWindowsEx(0), FailsWith(EPERM));
}

TEST_F(PowerTest, reboot) {
    for (const UINT flags : {1U, 2U, 0xFFFFFFFFU}) {
        EXPECT_EQ(withStandIns(0, [&] { EXPECT_TRUE(vllExitWindowsEx(flags)); }), "reboot|");
    }
    const struct {
        int status;
        int error;
        const char *run;
    } rows[] = {{3, EIO, "reboot|"}, {-1, ENOENT, ""}};
    for (const auto &row : rows) {
        EXPECT_EQ(withStandIns(row.status,
                               [&] {
                                   EXPECT_FALSE(vllExitWindowsEx(2));
                                   EXPECT_EQ(errno, row.error);
                               }),
                  row.run);
    }
}

TEST_F(PowerTest, timed_shutdown) {
    const struct {
        int status;
        BOOL reboot;
        int seen;
        const char *run;
    } rows[] = {{7, FALSE, 7, "shutdown|-h|+1|"}, {0, 2, 0, "shutdown|-r|+1|"}, {-1, TRUE, ENOENT, ""}};
    for (const auto &row : rows) {
        EXPECT_EQ(withStandIns(row.status,
                               [&] {
                                   EXPECT_TRUE(vllInitiateSystemShutdown(row.reboot));
                                   EXPECT_EQ(reap(), row.seen);
                               }),
                  row.run);
    }
    FailCall fail("fork", 1, EAGAIN);
    EXPECT_THAT(vllInitiateSystemShutdown(TRUE), FailsWith(EAGAIN));
}

// ---- locale and dates ----

class LocaleTest : public LibraryTest {};

TEST_F(LocaleTest, info) {
    const struct {
        DWORD code;
        std::string text;
    } rows[] = {{VLL_LOCALE_DATE_FORMAT, "%m/%d/%y"}, {VLL_LOCALE_TIME_FORMAT, "%H:%M:%S"}};
    for (const auto &row : rows) {
        const auto need = static_cast<DWORD>(row.text.size() + 1);
        EXPECT_EQ(vllGetLocaleInfo(row.code, nullptr, 0), need);
        for (DWORD size = 1; size <= need + 1; ++size) {
            char buffer[16] = "kept";
            errno = 0;
            EXPECT_EQ(vllGetLocaleInfo(row.code, buffer, size), size < need ? 0 : need - 1);
            EXPECT_EQ(errno, size < need ? ENOBUFS : 0);
            EXPECT_EQ(buffer, size < need ? "kept" : row.text);
        }
    }
    for (const DWORD code : {0U, 3U, 0x20029U, 0xFFFFFFFFU}) {
        EXPECT_THAT(vllGetLocaleInfo(code, nullptr, 0), FailsWith(EINVAL));
    }
    EXPECT_THAT(vllGetLocaleInfo(1, nullptr, 10), FailsWith(EINVAL));
}

TEST_F(LocaleTest, date_format) {
    const SYSTEMTIME leap_day = {2024, 2, 4, 29, 23, 59, 58, 999};
    char buffer[64];
    EXPECT_EQ(vllGetDateFormat(buffer, sizeof buffer, "%Y-%m-%d", &leap_day), 10U);
    EXPECT_STREQ(buffer, "2024-02-29");
    EXPECT_EQ(vllGetDateFormat(buffer, sizeof buffer, "%a %b %e %H:%M:%S", &leap_day), 19U);
    EXPECT_STREQ(buffer, "Thu Feb 29 23:59:58");
    for (const DWORD size : {0U, 1U, 10U}) {
        EXPECT_THAT(vllGetDateFormat(buffer, size, "%Y-%m-%d", &leap_day), FailsWith(ENOBUFS));
    }
    EXPECT_EQ(vllGetDateFormat(buffer, 11, "%Y-%m-%d", &leap_day), 10U);
    EXPECT_EQ(vllGetDateFormat(buffer, sizeof buffer, "", &leap_day), 0U);

    // A record out of range is formatted as it is.
    const SYSTEMTIME nonsense = {0, 0, 99, 65535, 99, 99, 99, 0};
    EXPECT_EQ(vllGetDateFormat(buffer, sizeof buffer, "%d %b %a", &nonsense), 9U);
    EXPECT_STREQ(buffer, "65535 ? ?");

    // The present time lies between a second before and a second after.
    const time_t before = time(nullptr);
    EXPECT_GT(vllGetDateFormat(buffer, sizeof buffer, "%s", nullptr), 0U);
    EXPECT_GE(atoll(buffer), before);
    EXPECT_LE(atoll(buffer), time(nullptr));
    EXPECT_THAT(vllGetDateFormat(nullptr, 10, "%s", nullptr), FailsWith(EINVAL));
    EXPECT_EQ(vllGetDateFormat(buffer, 10, nullptr, nullptr), 0U);
}

TEST_F(LocaleTest, set_locale) {
    expectInChild([] {
        EXPECT_THAT(vllSetLocale(nullptr), FailsWith(EINVAL));
        EXPECT_THAT(vllSetLocale("xx_XX.NONE"), FailsWith(EINVAL));
        // A small system may lack it.
        const bool installed = setlocale(LC_ALL, "C.UTF-8") != nullptr;
        setlocale(LC_ALL, "C");
        EXPECT_EQ(vllSetLocale("C.UTF-8") != 0, installed);
        EXPECT_STREQ(setlocale(LC_ALL, nullptr), installed ? "C.UTF-8" : "C");
        EXPECT_TRUE(vllSetLocale("C"));
        return 0;
    });
}

// ---- names ----

class NameTest : public LibraryTest {};

// Every size from 0 to one more than needed.
void expectName(BOOL (*get)(LPSTR, LPDWORD), const std::string &name, bool keeps_buffer) {
    for (DWORD size = 0; size <= name.size() + 2; ++size) {
        char buffer[32] = "kept";
        DWORD value = size;
        errno = 0;
        const BOOL fits = size > name.size();
        EXPECT_EQ(get(buffer, &value), fits);
        EXPECT_EQ(errno, fits ? 0 : ENOBUFS);
        EXPECT_EQ(value, fits ? name.size() : size);
        if (fits || keeps_buffer) {
            EXPECT_EQ(buffer, fits ? name : "kept");
        }
    }
    char buffer[4];
    DWORD size = sizeof buffer;
    EXPECT_THAT(get(nullptr, &size), FailsWith(EINVAL));
    EXPECT_THAT(get(buffer, nullptr), FailsWith(EINVAL));
}

TEST_F(NameTest, computer_name) {
    // Its own name, in a namespace of its own.
    expectInChild([] {
        const std::string name = "gateway-7";
        if (unshare(CLONE_NEWUTS) != 0 || sethostname(name.data(), name.size()) != 0) {
            return 1;
        }
        expectName(vllGetComputerName, name, false);
        return 0;
    });
}

TEST_F(NameTest, user_name) {
    expectInChild([] {
        if (unshare(CLONE_NEWNS) != 0) {
            return 1;
        }
        coverFile("/etc/passwd",
                  "root:x:0:0:" + std::string(5000, 'r') + ":/root:/bin/sh\nother:x:4:4::/:\n");
        setenv("USER", "from-user", 1);
        expectName(vllGetUserName, "root", true);
        if (setuid(5) != 0) {
            return 2;
        }
        expectName(vllGetUserName, "from-user", true);
        unsetenv("USER");
        char buffer[8];
        DWORD size = sizeof buffer;
        EXPECT_THAT(vllGetUserName(buffer, &size), FailsWith(ENOENT));
        return 0;
    });
}

TEST_F(NameTest, system_info) {
    struct utsname info;
    EXPECT_TRUE(vllGetSystemInfo(&info));
    EXPECT_STREQ(info.sysname, "Linux");
    EXPECT_THAT(vllGetSystemInfo(nullptr), FailsWith(EINVAL));
}

// ---- expansion ----

class ExpandTest : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        setenv("VLL_HOME", "/root", 1);
        setenv("VLL_WORDS", "two words", 1);
        setenv("VLL_EMPTY", "", 1);
        unsetenv("VLL_UNSET");
    }
};

TEST_F(ExpandTest, texts) {
    const struct {
        const char *source;
        std::string result;
    } rows[] = {
        {"$VLL_HOME/a   b", "/root/a b"},
        {"${VLL_HOME}x", "/rootx"},
        {"$VLL_WORDS", "two words"},
        {"\"a  b\" 'c  $VLL_HOME'", "a  b c  $VLL_HOME"},
        {"%VLL_HOME%", "%VLL_HOME%"},
        {"$((6 * 7))", "42"},
        {"$(echo a; echo b)", "a b"},
        {"`echo c`", "c"},
        {"x${VLL_UNSET}y", "xy"},
        {"${VLL_UNSET:-other}", "other"},
        {"\\$VLL_HOME", "$VLL_HOME"},
        {"/nowhere/*", "/nowhere/*"},
        {"one", "one"},
    };
    for (const auto &row : rows) {
        const auto need = static_cast<DWORD>(row.result.size() + 1);
        for (const DWORD size : {0U, 1U, need - 1, need, need + 1, 64U}) {
            char buffer[65] = "kept";
            errno = 0;
            EXPECT_EQ(vllExpandEnvironmnentStrings(row.source, buffer, size), size < need ? need : need - 1);
            EXPECT_EQ(errno, size < need ? ENOBUFS : 0) << row.source;
            EXPECT_EQ(buffer, size < need ? "kept" : row.result) << row.source;
        }
    }
    EXPECT_THAT(vllExpandEnvironmnentStrings("a", nullptr, 0), FailsWith(ENOBUFS, 2U));
}

TEST_F(ExpandTest, no_words) {
    for (const char *source : {"", "   ", "$VLL_UNSET", "$VLL_EMPTY", "$(true)"}) {
        char around[4] = {'<', 'k', 'k', '>'};
        EXPECT_EQ(vllExpandEnvironmnentStrings(source, around + 1, 0), 0U);
        EXPECT_EQ(around[1], 'k');
        errno = 0;
        EXPECT_EQ(vllExpandEnvironmnentStrings(source, around + 1, 2), 0U);
        EXPECT_EQ(errno, 0) << source;
        EXPECT_EQ(around[0], '<');
        EXPECT_EQ(around[1], '\0');
        EXPECT_EQ(around[2], 'k');
        EXPECT_EQ(vllExpandEnvironmnentStrings(source, nullptr, 0), 0U);
    }
    // A word that is empty is a word.
    char buffer[2] = "k";
    EXPECT_EQ(vllExpandEnvironmnentStrings("''", buffer, 1), 0U);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(vllExpandEnvironmnentStrings("''", buffer, 0), 1U);
}

TEST_F(ExpandTest, refused) {
    for (const char *source : {"a | b", "a & b", "a ; b", "a > b", "(a)", "\"open", "$(echo", "${", "a\nb"}) {
        char buffer[16] = "kept";
        errno = 0;
        EXPECT_EQ(vllExpandEnvironmnentStrings(source, buffer, sizeof buffer), 0U) << source;
        EXPECT_EQ(errno, EINVAL) << source;
        EXPECT_STREQ(buffer, "kept");
    }
    char buffer[16];
    EXPECT_EQ(vllExpandEnvironmnentStrings(nullptr, buffer, sizeof buffer), 0U);
    EXPECT_EQ(vllExpandEnvironmnentStrings("a", nullptr, 1), 0U);
    FailCall fail("wordexp", 1, WRDE_NOSPACE);
    EXPECT_THAT(vllExpandEnvironmnentStrings("a", buffer, sizeof buffer), FailsWith(ENOMEM));
}

}  // namespace
