#include <pthread.h>
#include <sys/resource.h>
#include <cstring>
#include <memory>

#include "objmem.h"
#include "support/child.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/objects.h"
#include "support/syslog_capture.h"

namespace {

class LibraryCoreTest : public LibraryTest {};

TEST_F(LibraryCoreTest, start_sets_the_descriptor_limit_and_prepares_the_table_once) {
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(limit.rlim_cur, 256U);
    EXPECT_EQ(limit.rlim_max, 256U);
    const Owned event(MakeManualEvent(TRUE));
    vllvwincompatMain();
    EXPECT_TRUE(IsSignalled(event));
    vllvwincompatExit();
    EXPECT_TRUE(IsSignalled(event)) << "an exit releases nothing";
    vllvwincompatExit();
    vllvwincompatMain();
    EXPECT_TRUE(IsSignalled(event));
}

TEST(LibraryStartTest, without_start_no_handle_is_made) {
    if (!InFreshProcess()) {
        return;
    }
    TakeLog();
    errno = 0;
    EXPECT_EQ(vllCreateEvent(1, 0, nullptr), 0U);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(TakeErrors(), Errors{"VLLI: AllocObject() error = ENOMEM\n"});
    const HANDLE any = 0;
    EXPECT_EQ(vllCreateThread(
                  0, [](LPVOID) -> uint32_t { return 0; }, nullptr, nullptr, 0),
              any);
    EXPECT_EQ(TakeErrors(), Errors{"VLLI: AllocMemObject() error = ENOMEM\n"});
}

TEST_F(LibraryCoreTest, start_says_nothing_when_the_table_cannot_be_locked) {
    vllvwincompatExit();
    const FailCall fail("pthread_mutex_lock", 1, EDEADLK);
    errno = 0;
    vllvwincompatMain();
    EXPECT_TRUE(fail.happened());
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(TakeErrors(), Errors{});
}

TEST_F(LibraryCoreTest, last_error_is_the_threads_own) {
    vllSetLastError(5);
    const auto body = [] {
        EXPECT_EQ(vllGetLastError(), 0U);
        vllSetLastError(7);
        EXPECT_EQ(errno, 7);
    };
    FinishThread(StartThread(body));
    vllSetLastError(5);
    EXPECT_EQ(vllGetLastError(), 5U);
    EXPECT_FALSE(vllSetEvent(0x50000));
    EXPECT_EQ(vllGetLastError(), static_cast<DWORD>(EINVAL));
}

TEST_F(LibraryCoreTest, formatErrorMessage_composes) {
    const std::string enoent = strerror(ENOENT);
    const std::string unknown = strerror(99999);
    const struct {
        const char *prefix;
        int32_t error;
        bool with_format;
        std::string text;
    } rows[] = {
        {"open", ENOENT, true, "open: " + enoent + " - file 7 of x"},
        {"", ENOENT, true, enoent + " - file 7 of x"},
        {nullptr, ENOENT, true, enoent + " - file 7 of x"},
        {"open", ENOENT, false, "open: " + enoent + " - "},
        {nullptr, 99999, false, unknown + " - "},
        {nullptr, -1, false, strerror(-1) + std::string(" - ")},
    };
    for (const auto &row : rows) {
        char *message = nullptr;
        const int32_t length =
            row.with_format ? vllFormatErrorMessage(&message, row.prefix, row.error, "file %d of %s", 7, "x")
                            : vllFormatErrorMessage(&message, row.prefix, row.error, nullptr);
        const std::unique_ptr<char, FreeDeleter> owner(message);
        ASSERT_NE(message, nullptr);
        EXPECT_EQ(message, row.text);
        EXPECT_EQ(length, static_cast<int32_t>(row.text.size()));
    }
}

TEST_F(LibraryCoreTest, formatErrorMessage_has_no_limit_of_its_own) {
    const std::string longText(5000, 'x');
    const std::string prefix(700, 'p');
    const std::string expected = prefix + ": " + strerror(EIO) + " - " + longText;
    char *message = nullptr;
    EXPECT_EQ(vllFormatErrorMessage(&message, prefix.c_str(), EIO, "%s", longText.c_str()),
              static_cast<int32_t>(expected.size()));
    const std::unique_ptr<char, FreeDeleter> owner(message);
    EXPECT_EQ(message, expected);
    EXPECT_EQ(vllFormatErrorMessage(nullptr, prefix.c_str(), EIO, "%s", longText.c_str()),
              static_cast<int32_t>(expected.size()));
}

TEST_F(LibraryCoreTest, formatErrorMessage_without_memory) {
    char *message = nullptr;
    ExpectFailure(
        {"malloc", 1, ENOMEM, {}}, [&] { return vllFormatErrorMessage(&message, "p", EIO, "%d", 1); }, -1);
    EXPECT_EQ(message, nullptr);
}

TEST_F(LibraryCoreTest, freeMemory_frees_what_is_not_null) {
    vlliFreeMemory(3, malloc(3), nullptr, malloc(5));  // the leak checker looks on
    vlliFreeMemory(0);
    vlliFreeMemory(-1);
}

// Several threads start the library at once in a process that has not: one table, one handle each.
TEST(LibraryStartTest, concurrent_start_prepares_one_table) {
    if (!InFreshProcess()) {
        return;
    }
    const ChildResult result = RunInChild([] {
        pthread_t threads[8];
        for (pthread_t &thread : threads) {
            pthread_create(
                &thread, nullptr,
                [](void *) -> void * {
                    vllvwincompatMain();
                    return reinterpret_cast<void *>(uintptr_t{MakeAutoEvent()});
                },
                nullptr);
        }
        uint32_t seen = 0;
        for (pthread_t &thread : threads) {
            void *handle = nullptr;
            pthread_join(thread, &handle);
            seen |= 1U << (reinterpret_cast<uintptr_t>(handle) & kIndexMask);
        }
        EXPECT_EQ(seen, 0xFFU);
        return 0;
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(result.status, 0);
}

}  // namespace
