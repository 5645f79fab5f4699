#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>
#include <cstring>

#include "support/child.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/matchers.h"
#include "support/objects.h"

namespace {

constexpr DWORD kSoonMs = 20000;
constexpr DWORD kCookedMode = ENABLE_LINE_INPUT | ENABLE_ECHO_INPUT | ENABLE_PROCESSED_INPUT;

class ConsoleTest : public LibraryTest {
  protected:
    // Runs body in a child whose standard input and output are a new terminal. Its argument is the terminal's master.
    void onTerminal(const std::function<void(int)> &body) {
        expectInChild([&] {
            const int master = posix_openpt(O_RDWR | O_NOCTTY);
            if (master == -1 || grantpt(master) == -1 || unlockpt(master) == -1) {
                return 1;
            }
            const int terminal = open(ptsname(master), O_RDWR | O_NOCTTY);
            if (terminal == -1 || dup2(terminal, 0) == -1 || dup2(terminal, 1) == -1) {
                return 2;
            }
            close(terminal);
            body(master);
            dup2(STDERR_FILENO, STDOUT_FILENO);  // for messages of failed checks
            return 0;
        });
    }
};

void type(int master, const char *text) {
    EXPECT_EQ(write(master, text, strlen(text)), static_cast<ssize_t>(strlen(text)));
}

bool isPending(HANDLE console, DWORD expected) {
    DWORD count = 0;
    return waitUntil([&] {
        EXPECT_TRUE(vllGetNumberOfConsoleInputEvents(console, &count));
        return count == expected;
    });
}

std::string readInput() {
    char buffer[64];
    const ssize_t length = read(STDIN_FILENO, buffer, sizeof buffer);
    return length > 0 ? std::string(buffer, static_cast<size_t>(length)) : "";
}

TEST_F(ConsoleTest, refuses_other_streams) {
    for (const DWORD number : {3U, 0U - 10U, 0x10000U}) {
        EXPECT_THAT(vllGetStdHandle(number), FailsWith(EINVAL, INVALID_HANDLE_VALUE));
    }
    const FailCall fail("dup", 1, EMFILE);
    EXPECT_THAT(vllGetStdHandle(0), FailsWith(EMFILE, INVALID_HANDLE_VALUE));
    EXPECT_NE(fcntl(0, F_GETFD), -1);
}

TEST_F(ConsoleTest, modes) {
    onTerminal([](int) {
        const Owned console(vllGetStdHandle(STD_INPUT_HANDLE));
        DWORD mode = 0xFFFFFFFF;
        EXPECT_TRUE(vllGetConsoleMode(console, &mode));
        EXPECT_EQ(mode, kCookedMode);
        termios before;
        tcgetattr(STDIN_FILENO, &before);
        for (const DWORD wanted : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 0xFFFFFFF8U, 0xFFFFFFFFU, 7U}) {
            EXPECT_TRUE(vllSetConsoleMode(console, wanted));
            EXPECT_TRUE(vllGetConsoleMode(console, &mode));
            EXPECT_EQ(mode, wanted & kCookedMode);
        }
        EXPECT_TRUE(vllSetConsoleMode(console, 0));
        termios after;
        tcgetattr(STDIN_FILENO, &after);
        before.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ISIG);
        EXPECT_EQ(after.c_lflag, before.c_lflag);
        EXPECT_EQ(after.c_iflag, before.c_iflag);
        EXPECT_EQ(after.c_oflag, before.c_oflag);
        EXPECT_EQ(memcmp(after.c_cc, before.c_cc, sizeof after.c_cc), 0);

        EXPECT_THAT(vllGetConsoleMode(console, nullptr), FailsWith(EINVAL));
        EXPECT_THAT(vllGetNumberOfConsoleInputEvents(console, nullptr), FailsWith(EINVAL));
    });
}

TEST_F(ConsoleTest, pending_input_and_waits) {
    onTerminal([](int master) {
        const Owned console(vllGetStdHandle(STD_INPUT_HANDLE));
        // In line mode there is no input before the line is complete.
        type(master, "ab");
        EXPECT_EQ(vllWaitForSingleObject(console, 50), WAIT_TIMEOUT);
        EXPECT_TRUE(isPending(console, 0));
        type(master, "c\n");
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(vllWaitForSingleObject(console, kSoonMs), WAIT_OBJECT_0);
        }
        EXPECT_TRUE(isPending(console, 4));
        EXPECT_EQ(readInput(), "abc\n");
        EXPECT_EQ(vllWaitForSingleObject(console, 0), WAIT_TIMEOUT);

        EXPECT_TRUE(vllSetConsoleMode(console, 0));
        type(master, "x");
        EXPECT_EQ(vllWaitForSingleObject(console, kSoonMs), WAIT_OBJECT_0);
        EXPECT_TRUE(isPending(console, 1));
        type(master, "yz");
        EXPECT_TRUE(isPending(console, 3));
        EXPECT_TRUE(vllFlushConsoleInputBuffer(console));
        EXPECT_TRUE(isPending(console, 0));
        EXPECT_EQ(vllWaitForSingleObject(console, 0), WAIT_TIMEOUT);
    });
}

TEST_F(ConsoleTest, handles_are_independent) {
    onTerminal([](int master) {
        const HANDLE first = vllGetStdHandle(STD_INPUT_HANDLE);
        const Owned second(vllGetStdHandle(STD_INPUT_HANDLE)), copy(vllDuplicateHandle(first));
        EXPECT_TRUE(vllCloseHandle(first));
        type(master, "line\n");
        for (const HANDLE console : {HANDLE{second}, HANDLE{copy}}) {
            DWORD mode = 0;
            EXPECT_EQ(vllWaitForSingleObject(console, kSoonMs), WAIT_OBJECT_0);
            EXPECT_TRUE(vllGetConsoleMode(console, &mode));
            EXPECT_EQ(mode, kCookedMode);
        }
        EXPECT_EQ(readInput(), "line\n");

        const Owned output(vllGetStdHandle(STD_OUTPUT_HANDLE));
        DWORD mode = 0;
        EXPECT_TRUE(vllGetConsoleMode(output, &mode));
        const FailCall fail("dup", 1, EMFILE);
        EXPECT_THAT(vllDuplicateHandle(output), FailsWith(EMFILE));
    });
}

TEST_F(ConsoleTest, what_is_no_terminal) {
    expectInChild([] {
        const int fd = open("/dev/null", O_RDWR);
        dup2(fd, STDIN_FILENO);
        const Owned console(vllGetStdHandle(STD_INPUT_HANDLE));
        DWORD value = 77;
        EXPECT_THAT(vllGetConsoleMode(console, &value), FailsWith(ENOTTY));
        EXPECT_THAT(vllSetConsoleMode(console, 0), FailsWith(ENOTTY));
        EXPECT_THAT(vllFlushConsoleInputBuffer(console), FailsWith(ENOTTY));
        EXPECT_THAT(vllGetNumberOfConsoleInputEvents(console, &value), FailsWith(ENOTTY));
        EXPECT_EQ(value, 77U);
        close(STDIN_FILENO);
        EXPECT_THAT(vllGetStdHandle(STD_INPUT_HANDLE), FailsWith(EBADF, INVALID_HANDLE_VALUE));
        return 0;
    });
}

}  // namespace
