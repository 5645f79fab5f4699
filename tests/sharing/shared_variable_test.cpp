#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <atomic>
#include <cstring>
#include <memory>

#include "support/child.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/matchers.h"
#include "support/objects.h"

namespace {

constexpr char kName[] = "/variable";  // /dev/shm is the test's own

class SharedVariableTest : public LibraryTest {
  protected:
    void TearDown() override {
        shm_unlink(kName);
        LibraryTest::TearDown();
    }
    SharedVar *make(DWORD size, int32_t mode = SHVAR_CREATE) { return vllSharedVarInit(kName, size, mode); }
    bool nameExists() const {
        const int fd = shm_open(kName, O_RDONLY, 0);
        close(fd);
        return fd != -1;
    }
};

TEST_F(SharedVariableTest, another_process_reads_what_one_wrote) {
    SharedVar *variable = make(8);
    ASSERT_NE(variable, nullptr);
    char zeros[8] = {1};
    EXPECT_EQ(vllSharedVarManipulate(zeros, variable, SHVAR_READ), 1);
    EXPECT_EQ(memcmp(zeros, "\0\0\0\0\0\0\0\0", 8), 0);
    char value[8] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};
    EXPECT_EQ(vllSharedVarManipulate(value, variable, SHVAR_WRITE), 1);
    const ChildResult child = runInChild([&] {
        SharedVar *opened = make(8, SHVAR_OPEN);
        char read[8] = {};
        EXPECT_EQ(vllSharedVarManipulate(read, opened, SHVAR_READ), 1);
        EXPECT_EQ(memcmp(read, value, 8), 0);
        EXPECT_TRUE(vllSharedVarDeallocate(opened, SHVAR_OPEN));
        EXPECT_TRUE(nameExists());
        return 0;
    });
    EXPECT_EQ(child.status, 0);
    EXPECT_TRUE(vllSharedVarDeallocate(variable, SHVAR_CREATE));
    EXPECT_THAT(make(8, SHVAR_OPEN), FailsWith(ENOENT));
}

TEST_F(SharedVariableTest, creating_anew_empties_it_for_everyone) {
    SharedVar *old = make(8192);
    std::string block(8192, 'x');
    EXPECT_EQ(vllSharedVarManipulate(block.data(), old, SHVAR_WRITE), 1);
    SharedVar *fresh = make(16);
    // The first one's mapping now reaches past the object's end: no SIGBUS, and zeros.
    EXPECT_EQ(vllSharedVarManipulate(block.data(), old, SHVAR_READ), 1);
    EXPECT_EQ(block, std::string(8192, '\0'));
    EXPECT_TRUE(vllSharedVarDeallocate(old, SHVAR_OPEN));
    EXPECT_TRUE(vllSharedVarDeallocate(fresh, SHVAR_CREATE));
}

TEST_F(SharedVariableTest, bad_arguments) {
    const std::string long_name = "/" + std::string(300, 'n');
    const struct {
        int line;
        const char *name;
        DWORD size;
        int32_t mode;
        int error;
    } rows[] = {
        {__LINE__, nullptr, 8, SHVAR_CREATE, EINVAL},
        {__LINE__, kName, 8, 0, EINVAL},
        {__LINE__, kName, 8, SHVAR_READ, EINVAL},
        {__LINE__, kName, 0, SHVAR_CREATE, EINVAL},
        {__LINE__, "", 8, SHVAR_CREATE, EINVAL},
        {__LINE__, "/a/b", 8, SHVAR_CREATE, EINVAL},
        {__LINE__, long_name.c_str(), 8, SHVAR_CREATE, EINVAL},
        {__LINE__, kName, 8, SHVAR_OPEN, ENOENT},
    };
    for (const auto &row : rows) {
        EXPECT_THAT(vllSharedVarInit(row.name, row.size, row.mode), FailsWith(row.error))
            << "line " << row.line;
    }
    EXPECT_FALSE(nameExists());
    // Too large for some machines.
    SharedVar *const huge = make(UINT32_MAX);
    EXPECT_TRUE(huge != nullptr ? vllSharedVarDeallocate(huge, SHVAR_CREATE) : errno == ENOMEM);
    EXPECT_FALSE(nameExists());
    SharedVar *variable = make(4);
    char buffer[4] = {'k', 'e', 'e', 'p'};
    EXPECT_THAT(vllSharedVarManipulate(buffer, variable, 5), FailsWith(EINVAL));
    EXPECT_EQ(memcmp(buffer, "keep", 4), 0);
    EXPECT_EQ(vllSharedVarManipulate(nullptr, variable, SHVAR_READ), 0);
    EXPECT_EQ(vllSharedVarManipulate(buffer, nullptr, SHVAR_READ), 0);
    EXPECT_FALSE(vllSharedVarDeallocate(nullptr, SHVAR_OPEN));
    EXPECT_TRUE(vllSharedVarDeallocate(variable, SHVAR_CREATE));
}

TEST_F(SharedVariableTest, failing_calls_leave_nothing_behind) {
    struct Row {
        const char *call;
        int nth, error;
    };
    for (const Row &row : {Row{"malloc", 1, ENOMEM}, Row{"strdup", 1, ENOMEM}, Row{"shm_open", 1, EMFILE},
                           Row{"ftruncate64", 1, ENOSPC}, Row{"ftruncate64", 2, ENOSPC},
                           Row{"mmap64", 1, ENOMEM}, Row{"fcntl64", 1, ENOLCK}}) {
        const FailCall fail(row.call, row.nth, row.error);
        errno = 0;
        EXPECT_EQ(make(64), nullptr) << row.call;
        EXPECT_EQ(errno, row.error) << row.call;
        EXPECT_TRUE(fail.happened()) << row.call;
        EXPECT_FALSE(nameExists()) << row.call;
    }
}

// O_CREAT is refused on another user's object (fs.protected_regular), which may be opened all the same.
TEST_F(SharedVariableTest, opens_again_what_could_not_be_opened_so) {
    SharedVar *variable = make(4);
    for (const int error : {EINTR, EACCES}) {
        const FailCall fail("shm_open", 1, error);
        SharedVar *again = make(4);
        EXPECT_NE(again, nullptr) << strerror(error);
        EXPECT_TRUE(vllSharedVarDeallocate(again, SHVAR_OPEN));
    }
    EXPECT_TRUE(vllSharedVarDeallocate(variable, SHVAR_CREATE));
}

TEST_F(SharedVariableTest, failing_locks_and_closes) {
    SharedVar *variable = make(4);
    char buffer[4] = {};
    for (const auto &[nth, error, result] :
         {std::tuple(1, ENOLCK, 0), std::tuple(2, ENOLCK, -1), std::tuple(1, EINTR, 1)}) {
        const FailCall fail("fcntl64", nth, error);
        EXPECT_EQ(vllSharedVarManipulate(buffer, variable, SHVAR_WRITE), result);
        EXPECT_TRUE(result == 1 || errno == error);
    }
    {
        const FailCall fail("shm_unlink", 1, EACCES);
        EXPECT_THAT(vllSharedVarDeallocate(variable, SHVAR_CREATE), FailsWith(EACCES));
    }
    // The second try finishes what the first left.
    EXPECT_TRUE(vllSharedVarDeallocate(variable, SHVAR_CREATE));
    EXPECT_FALSE(nameExists());
}

TEST_F(SharedVariableTest, waiting_for_a_lock) {
    SharedVar *variable = make(4);
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t holder = startChild([&] {
        const int fd = shm_open(kName, O_RDWR, 0);
        struct flock lock = {};
        lock.l_type = F_WRLCK;
        EXPECT_EQ(fcntl(fd, F_SETLKW, &lock), 0);
        EXPECT_EQ(write(ready[1], "r", 1), 1);
        pause();
        return 0;
    });
    char byte;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    close(ready[1]);
    std::atomic<pid_t> tid{0};
    std::atomic<int32_t> result{0};
    char buffer[4];
    const auto reads = [&] {
        tid = gettid();
        result = vllSharedVarManipulate(buffer, variable, SHVAR_READ);
    };
    const auto makes = [&] {
        tid = gettid();
        make(4);
    };
    const auto startWaiting = [&](auto &body) {
        tid = 0;
        const HANDLE thread = startThread(body);
        EXPECT_TRUE(waitUntil([&] { return tid != 0; }));
        EXPECT_TRUE(waitUntilAsleep(tid));
        return thread;
    };
    // A cancelled waiter leaves nothing behind.
    for (const HANDLE thread : {startWaiting(reads), startWaiting(makes)}) {
        EXPECT_TRUE(vllTerminateThread(thread, 0));
        finishThread(thread);
    }
    // A killed holder does not keep the lock.
    const HANDLE reader = startWaiting(reads);
    EXPECT_EQ(result, 0);
    kill(holder, SIGKILL);
    finishChild(holder);
    finishThread(reader);
    EXPECT_EQ(result, 1);
    EXPECT_TRUE(vllSharedVarDeallocate(variable, SHVAR_CREATE));
}

// Writers fill the block with one byte value each, and one process makes it anew; a reader that sees two values saw a
// mixed block.
TEST_F(SharedVariableTest, readers_never_see_a_mixed_block) {
    constexpr DWORD kSize = 64 * 1024;
    SharedVar *variable = make(kSize);
    std::vector<pid_t> children;
    for (int i = 0; i < 9; ++i) {
        children.push_back(startChild([&, i] {
            SharedVar *mine = make(kSize, SHVAR_OPEN);
            const std::unique_ptr<char[]> block(new char[kSize]);
            const int64_t end = nowMs() + 2000;
            bool mixed = false;
            for (int round = 0; round < 400 && nowMs() < end; ++round) {
                if (i == 8) {
                    EXPECT_TRUE(vllSharedVarDeallocate(make(kSize), SHVAR_OPEN));
                } else if (i % 2 == 0) {
                    memset(block.get(), i * 50 + round % 50, kSize);
                    EXPECT_EQ(vllSharedVarManipulate(block.get(), mine, SHVAR_WRITE), 1);
                } else {
                    EXPECT_EQ(vllSharedVarManipulate(block.get(), mine, SHVAR_READ), 1);
                    mixed |= memcmp(block.get(), block.get() + 1, kSize - 1) != 0;
                }
            }
            EXPECT_FALSE(mixed);
            return 0;
        }));
    }
    for (const pid_t child : children) {
        EXPECT_EQ(finishChild(child).status, 0);
    }
    EXPECT_TRUE(vllSharedVarDeallocate(variable, SHVAR_CREATE));
}

}  // namespace
