#include <sys/resource.h>
#include <cstring>
#include <memory>
#include <thread>

#include "base/allocate.h"
#include "core/objmem.h"
#include "support/child.h"
#include "support/fixture.h"
#include "support/matchers.h"
#include "support/objects.h"
#include "support/syslog_capture.h"

namespace {

class LibraryCoreTest : public LibraryTest {};

TEST_F(LibraryCoreTest, start_sets_the_descriptor_limit_and_prepares_the_table_once) {
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(limit.rlim_cur, 256U);
    EXPECT_EQ(limit.rlim_max, 256U);
    const Owned event(makeManualEvent(TRUE));
    vllvwincompatMain();
    EXPECT_TRUE(isSignalled(event));
    vllvwincompatExit();
    EXPECT_TRUE(isSignalled(event)) << "an exit releases nothing";
    vllvwincompatExit();
    vllvwincompatMain();
    EXPECT_TRUE(isSignalled(event));
}

TEST(LibraryStartTest, without_start_no_handle_is_made) {
    if (inFreshProcess()) {
        EXPECT_THAT(vllCreateEvent(1, 0, nullptr), FailsWith(ENOMEM));
        EXPECT_THAT(vllCreateMutex(FALSE, nullptr), FailsWith(ENOMEM));
        EXPECT_EQ(takeErrors(), (Errors{"VLLI: AllocObject() error = ENOMEM\n",
                                        "VLLI: AllocMemObject() error = ENOMEM\n"}));
    }
}

TEST_F(LibraryCoreTest, last_error_is_the_threads_own) {
    vllSetLastError(5);
    const auto body = [] {
        EXPECT_EQ(vllGetLastError(), 0U);
        vllSetLastError(7);
        EXPECT_EQ(errno, 7);
    };
    finishThread(startThread(body));
    vllSetLastError(5);
    EXPECT_EQ(vllGetLastError(), 5U);
    EXPECT_FALSE(vllSetEvent(0x50000));
    EXPECT_EQ(vllGetLastError(), static_cast<DWORD>(EINVAL));
}

TEST_F(LibraryCoreTest, formatErrorMessage_composes) {
    const std::string enoent = strerror(ENOENT), long_prefix(700, 'p'), long_word(5000, 'x');
    const struct {
        const char *prefix;
        int32_t error;
        const char *word;  // null: no format
        std::string text;
    } rows[] = {
        {"open", ENOENT, "x", "open: " + enoent + " - file 7 of x"},
        {"", ENOENT, "x", enoent + " - file 7 of x"},
        {nullptr, ENOENT, "", enoent + " - file 7 of "},
        {"open", ENOENT, nullptr, "open: " + enoent + " - "},
        {nullptr, 99999, nullptr, strerror(99999) + std::string(" - ")},
        {nullptr, -1, nullptr, strerror(-1) + std::string(" - ")},
        {long_prefix.c_str(), ENOENT, long_word.c_str(),
         long_prefix + ": " + enoent + " - file 7 of " + long_word},
    };
    for (const auto &row : rows) {
        const auto format = [&row](char **message) {
            return row.word != nullptr
                       ? vllFormatErrorMessage(message, row.prefix, row.error, "file %d of %s", 7, row.word)
                       : vllFormatErrorMessage(message, row.prefix, row.error, nullptr);
        };
        char *message = nullptr;
        EXPECT_EQ(format(&message), static_cast<int32_t>(row.text.size()));
        const std::unique_ptr<char, FreeDeleter> owner(message);
        ASSERT_NE(message, nullptr);
        EXPECT_EQ(message, row.text);
        EXPECT_EQ(format(nullptr), static_cast<int32_t>(row.text.size())) << "only measured";
    }
}

TEST_F(LibraryCoreTest, formatErrorMessage_without_memory) {
    expectFailure(
        {"malloc", 1, ENOMEM, {}}, [] { return vllFormatErrorMessage(nullptr, "p", EIO, "%d", 1); }, -1);
}

TEST_F(LibraryCoreTest, freeMemory_frees_what_is_not_null) {
    vlliFreeMemory(3, malloc(3), nullptr, malloc(5));  // the leak checker looks on
    vlliFreeMemory(0);
    vlliFreeMemory(-1);
}

// Several threads start the library at once in a process that has not: one table, one handle each.
TEST(LibraryStartTest, concurrent_start_prepares_one_table) {
    if (!inFreshProcess()) {
        return;
    }
    HANDLE handles[8] = {};
    std::vector<std::thread> threads;
    for (HANDLE &handle : handles) {
        threads.emplace_back([&handle] {
            vllvwincompatMain();
            handle = makeAutoEvent();
        });
    }
    uint32_t seen = 0;
    for (size_t i = 0; i < threads.size(); ++i) {
        threads[i].join();
        seen |= 1U << (handles[i] & kIndexMask);
        EXPECT_TRUE(vllCloseHandle(handles[i]));
    }
    EXPECT_EQ(seen, 0xFFU) << "each has an index of its own";
}

}  // namespace
