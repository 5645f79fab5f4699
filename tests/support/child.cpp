#include "support/child.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <cstdio>
#include <string>

#include "core/objmem.h"

// Of the runtime of a coverage build: writes the counts, which _exit() would lose.
extern "C" __attribute__((weak)) void __gcov_dump();

pid_t startChild(const std::function<int()> &body) {
    fflush(nullptr);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid != 0) {
        return pid;
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(98);
    }
    int status = body();
    if (status == 0 && testing::Test::HasFailure()) {
        status = 99;
    }
    fflush(nullptr);
    if (__gcov_dump != nullptr) {
        __gcov_dump();
    }
    _exit(status);
}

ChildResult finishChild(pid_t pid, int limit_ms) {
    const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    pollfd ended = {pidfd, POLLIN, 0};
    const bool in_time = pidfd != -1 && poll(&ended, 1, limit_ms) == 1;
    if (!in_time) {
        kill(pid, SIGKILL);
    }
    if (pidfd != -1) {
        close(pidfd);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) == -1 && errno == EINTR) {
    }
    if (WIFEXITED(status)) {
        return {in_time, WEXITSTATUS(status)};
    }
    return {false, WTERMSIG(status)};
}

ChildResult runInChild(const std::function<int()> &body, int limit_ms) {
    const pid_t pid = startChild(body);
    if (pid == -1) {
        return {false, errno};
    }
    return finishChild(pid, limit_ms);
}

void expectSuccess(pid_t pid, int limit_ms) {
    const ChildResult result = finishChild(pid, limit_ms);
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(result.status, 0);
}

void expectInChild(const std::function<int()> &body) {
    expectSuccess(startChild(body));
}

Doorbell::Doorbell() {
    EXPECT_EQ(pipe(ends_), 0);
}

Doorbell::~Doorbell() {
    close(ends_[0]);
    close(ends_[1]);
}

void Doorbell::ring() const {
    EXPECT_EQ(write(ends_[1], "x", 1), 1);
}

void Doorbell::wait() const {
    pollfd rung = {ends_[0], POLLIN, 0};
    char byte;
    EXPECT_EQ(poll(&rung, 1, 60000), 1);
    EXPECT_EQ(read(ends_[0], &byte, 1), 1);
}

bool inFreshProcess() {
    if (bInitialized == 0) {
        return true;
    }
    const testing::TestInfo *test = testing::UnitTest::GetInstance()->current_test_info();
    const std::string filter = std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name();
    const ChildResult result = runInChild([&] {
        execl("/proc/self/exe", "test", filter.c_str(), "--gtest_repeat=1", nullptr);
        return 97;
    });
    EXPECT_TRUE(result.exited && result.status == 0) << filter << ": status " << result.status;
    return false;
}
