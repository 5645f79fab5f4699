// Power, locale, dates, names and expansion.
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
#include "support/threads.h"
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

TEST_F(PowerTest, power_off) {
    reboot_error = 0;
    EXPECT_TRUE(vllExitWindowsEx(0));
    EXPECT_EQ(static_cast<uint32_t>(reboot_command), 0x4321FEDCU);
    reboot_error = EPERM;
    EXPECT_THAT(vllExitWindowsEx(0), FailsWith(EPERM));
}

TEST_F(PowerTest, reboot) {
    const struct {
        UINT flags;
        int status;  // of /sbin/reboot; -1: there is none
        int error;
    } rows[] = {{1, 0, 0}, {0xFFFFFFFF, 0, 0}, {2, 3, EIO}, {2, 127, ENOENT}, {2, -1, ENOENT}};
    for (const auto &row : rows) {
        const std::string run = withStandIns(
            row.status, [&] { EXPECT_THAT(vllExitWindowsEx(row.flags), Yields(row.error == 0, row.error)); });
        EXPECT_EQ(run, row.status >= 0 ? "reboot|" : "");
    }
    EXPECT_EQ(withStandIns(0,
                           [] {
                               const SignalHandler ignored(SIGCHLD, SIG_IGN);
                               EXPECT_THAT(vllExitWindowsEx(1), Yields(TRUE, 0));
                           }),
              "reboot|");
    const FailCall fail("clone", 1, EAGAIN);
    EXPECT_THAT(vllExitWindowsEx(1), FailsWith(EAGAIN));
}

TEST_F(PowerTest, timed_shutdown) {
    const struct {
        int status;
        BOOL reboot;
        int seen;
        const char *run;
    } rows[] = {{7, FALSE, 7, "shutdown|-h|+1|"}, {0, 2, 0, "shutdown|-r|+1|"}, {-1, TRUE, ENOENT, ""}};
    for (const auto &row : rows) {
        const std::string run = withStandIns(row.status, [&] {
            EXPECT_THAT(vllInitiateSystemShutdown(row.reboot), Yields(TRUE, 0));
            int status = -1;
            EXPECT_GT(waitpid(-1, &status, 0), 0);
            EXPECT_EQ(status, row.seen << 8);
        });
        EXPECT_EQ(run, row.run);
    }
    const FailCall fail("clone", 1, EAGAIN);
    EXPECT_THAT(vllInitiateSystemShutdown(TRUE), FailsWith(EAGAIN));
}

// ---- locale and dates ----

class LocaleTest : public LibraryTest {};

TEST_F(LocaleTest, info) {
    const std::pair<DWORD, std::string> rows[] = {{VLL_LOCALE_DATE_FORMAT, "%m/%d/%y"},
                                                  {VLL_LOCALE_TIME_FORMAT, "%H:%M:%S"}};
    for (const auto &[code, text] : rows) {
        const auto need = static_cast<DWORD>(text.size() + 1);
        EXPECT_THAT(vllGetLocaleInfo(code, nullptr, 0), Yields(need, 0));
        for (DWORD size = 1; size <= need + 1; ++size) {
            char buffer[16] = "kept";
            EXPECT_THAT(vllGetLocaleInfo(code, buffer, size),
                        size < need ? Yields(0U, ENOBUFS) : Yields(need - 1, 0));
            EXPECT_EQ(buffer, size < need ? "kept" : text);
        }
    }
    for (const DWORD code : {0U, 3U, 0x20029U, 0xFFFFFFFFU}) {
        EXPECT_THAT(vllGetLocaleInfo(code, nullptr, 0), FailsWith(EINVAL));
    }
    EXPECT_THAT(vllGetLocaleInfo(1, nullptr, 10), FailsWith(EINVAL));
}

TEST_F(LocaleTest, date_format) {
    const SYSTEMTIME leap_day = {2024, 2, 4, 29, 23, 59, 58, 999};
    const SYSTEMTIME nonsense = {0, 0, 99, 65535, 99, 99, 99, 0};  // is formatted as it is
    const struct {
        const SYSTEMTIME *date;
        const char *format;
        std::string text;
    } rows[] = {
        {&leap_day, "%Y-%m-%d", "2024-02-29"},
        {&leap_day, "%a %b %e %H:%M:%S", "Thu Feb 29 23:59:58"},
        {&nonsense, "%d %b %a", "65535 ? ?"},
    };
    char buffer[64];
    for (const auto &row : rows) {
        const auto length = static_cast<DWORD>(row.text.size());
        EXPECT_THAT(vllGetDateFormat(buffer, length + 1, row.format, row.date), Yields(length, 0));
        EXPECT_EQ(buffer, row.text);
        for (const DWORD size : {DWORD{0}, DWORD{1}, length}) {
            EXPECT_THAT(vllGetDateFormat(buffer, size, row.format, row.date), FailsWith(ENOBUFS));
        }
    }
    const time_t before = time(nullptr);
    EXPECT_GT(vllGetDateFormat(buffer, sizeof buffer, "%s", nullptr), 0U);
    EXPECT_GE(atoll(buffer), before);
    EXPECT_LE(atoll(buffer), time(nullptr));
    EXPECT_THAT(vllGetDateFormat(nullptr, 10, "%s", nullptr), FailsWith(EINVAL));
    EXPECT_THAT(vllGetDateFormat(buffer, 10, nullptr, nullptr), FailsWith(EINVAL));
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
        const BOOL fits = size > name.size();
        EXPECT_THAT(get(buffer, &value), Yields(fits, fits ? 0 : ENOBUFS));
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

TEST_F(NameTest, of_the_machine_and_the_user) {
    expectInChild([] {
        const std::string name = "gateway-7";
        if (unshare(CLONE_NEWUTS | CLONE_NEWNS) != 0 || sethostname(name.data(), name.size()) != 0) {
            return 1;
        }
        expectName(vllGetComputerName, name, false);
        // The comment is longer than the first buffer of a lookup.
        coverFile("/etc/passwd", "root:x:0:0:" + std::string(5000, 'r') + ":/root:/bin/sh\n");
        setenv("USER", "from-user", 1);
        expectName(vllGetUserName, "root", true);
        EXPECT_EQ(setuid(5), 0);
        expectName(vllGetUserName, "from-user", true);
        unsetenv("USER");
        char buffer[8];
        DWORD size = sizeof buffer;
        EXPECT_THAT(vllGetUserName(buffer, &size), FailsWith(ENOENT));
        return 0;
    });
    struct utsname info;
    EXPECT_THAT(vllGetSystemInfo(&info), Yields(TRUE, 0));
    EXPECT_STREQ(info.sysname, "Linux");
    EXPECT_THAT(vllGetSystemInfo(nullptr), FailsWith(EINVAL));
}

// ---- expansion ----

class ExpandTest : public LibraryTest {
    const Variable home_{"VLL_HOME", "/root"};
    const Variable words_{"VLL_WORDS", "two words"};
    const Variable empty_{"VLL_EMPTY", ""};
};

TEST_F(ExpandTest, texts) {
    const std::pair<const char *, std::string> rows[] = {
        {"$VLL_HOME/a   b", "/root/a b"},
        {"${VLL_HOME}x", "/rootx"},
        {"$VLL_WORDS", "two words"},
        {"\"a  b\" 'c  $VLL_HOME'", "a  b c  $VLL_HOME"},
        {"%VLL_HOME%", "%VLL_HOME%"},
        {"$((6 * 7))", "42"},
        {"$(echo a; echo b)", "a b"},
        {"x${VLL_UNSET}y", "xy"},
        {"\\$VLL_HOME", "$VLL_HOME"},
        {"/nowhere/*", "/nowhere/*"},
        {"one", "one"},
    };
    for (const auto &[source, result] : rows) {
        const auto need = static_cast<DWORD>(result.size() + 1);
        for (const DWORD size : {0U, 1U, need - 1, need, need + 1, 64U}) {
            char buffer[65] = "kept";
            EXPECT_THAT(vllExpandEnvironmnentStrings(source, buffer, size),
                        size < need ? Yields(need, ENOBUFS) : Yields(need - 1, 0));
            EXPECT_EQ(buffer, size < need ? "kept" : result) << source;
        }
    }
    EXPECT_THAT(vllExpandEnvironmnentStrings("a", nullptr, 0), FailsWith(ENOBUFS, 2U));
}

TEST_F(ExpandTest, no_words) {
    for (const char *source : {"", "   ", "$VLL_UNSET", "$VLL_EMPTY", "$(true)"}) {
        SCOPED_TRACE(source);
        char around[] = "<kk>";
        EXPECT_THAT(vllExpandEnvironmnentStrings(source, around + 1, 0), Yields(0U, 0));
        EXPECT_STREQ(around, "<kk>");
        EXPECT_THAT(vllExpandEnvironmnentStrings(source, around + 1, 2), Yields(0U, 0));
        EXPECT_EQ(std::string(around, 4), std::string("<\0k>", 4));
        EXPECT_EQ(vllExpandEnvironmnentStrings(source, nullptr, 0), 0U);
    }
    // A word that is empty is a word.
    char buffer[2] = "k";
    EXPECT_THAT(vllExpandEnvironmnentStrings("''", buffer, 1), Yields(0U, 0));
    EXPECT_STREQ(buffer, "");
    EXPECT_THAT(vllExpandEnvironmnentStrings("''", buffer, 0), FailsWith(ENOBUFS, 1U));
}

TEST_F(ExpandTest, refused) {
    char buffer[16] = "kept";
    for (const char *source : {"a | b", "a & b", "a ; b", "a > b", "(a)", "\"open", "$(echo", "${", "a\nb"}) {
        EXPECT_THAT(vllExpandEnvironmnentStrings(source, buffer, sizeof buffer), FailsWith(EINVAL)) << source;
    }
    EXPECT_THAT(vllExpandEnvironmnentStrings(nullptr, buffer, sizeof buffer), FailsWith(EINVAL));
    EXPECT_THAT(vllExpandEnvironmnentStrings("a", nullptr, 1), FailsWith(EINVAL));
    const FailCall fail("wordexp", 1, WRDE_NOSPACE);
    EXPECT_THAT(vllExpandEnvironmnentStrings("a", buffer, sizeof buffer), FailsWith(ENOMEM));
    EXPECT_STREQ(buffer, "kept");
}

}  // namespace
