// Shared variables: what processes read and write, and what failures leave.
#include <cstring>

#include "base/file_lock.h"
#include "sharing/named_objects.h"
#include "support/faults.h"
#include "support/matchers.h"

namespace {

constexpr char kName[] = "/variable";  // /dev/shm is the test's own

class SharedVariableTest : public LibraryTest {
  protected:
    void TearDown() override {
        shm_unlink(kName);
        LibraryTest::TearDown();
    }
    SharedVar *make(DWORD size, int32_t mode = SHVAR_CREATE) { return vllSharedVarInit(kName, size, mode); }
    bool nameExists() const { return objectLength(kName) != -1; }
};

TEST_F(SharedVariableTest, another_process_reads_what_one_wrote) {
    SharedVar *variable = make(8);
    ASSERT_NE(variable, nullptr);
    char value[9] = "xxxxxxxx";
    EXPECT_EQ(vllSharedVarManipulate(value, variable, SHVAR_READ), 1);
    EXPECT_EQ(std::string(value, 8), std::string(8, '\0'));
    EXPECT_EQ(vllSharedVarManipulate(strcpy(value, "abcdefgh"), variable, SHVAR_WRITE), 1);
    expectInChild([&] {
        SharedVar *opened = make(8, SHVAR_OPEN);
        char read[9] = {};
        EXPECT_EQ(vllSharedVarManipulate(read, opened, SHVAR_READ), 1);
        EXPECT_STREQ(read, "abcdefgh");
        EXPECT_TRUE(vllSharedVarDeallocate(opened, SHVAR_OPEN));
        EXPECT_TRUE(nameExists());
        return 0;
    });
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
    const struct {
        const char *name;
        DWORD size;
        int32_t mode;
        int error;
    } rows[] = {
        {nullptr, 8, SHVAR_CREATE, EINVAL}, {kName, 8, 0, EINVAL},         {kName, 8, SHVAR_READ, EINVAL},
        {kName, 0, SHVAR_CREATE, EINVAL},   {"", 8, SHVAR_CREATE, EINVAL}, {kName, 8, SHVAR_OPEN, ENOENT},
    };
    for (const auto &row : rows) {
        EXPECT_THAT(vllSharedVarInit(row.name, row.size, row.mode), FailsWith(row.error)) << &row - rows;
    }
    // Too large for some machines.
    SharedVar *const huge = make(UINT32_MAX);
    EXPECT_TRUE(huge != nullptr ? vllSharedVarDeallocate(huge, SHVAR_CREATE) : errno == ENOMEM);
    EXPECT_FALSE(nameExists());
    SharedVar *variable = make(4);
    char buffer[5] = "keep";
    EXPECT_THAT(vllSharedVarManipulate(buffer, variable, 5), FailsWith(EINVAL));
    EXPECT_STREQ(buffer, "keep");
    EXPECT_THAT(vllSharedVarManipulate(nullptr, variable, SHVAR_READ), FailsWith(EINVAL));
    EXPECT_THAT(vllSharedVarManipulate(buffer, nullptr, SHVAR_READ), FailsWith(EINVAL));
    EXPECT_THAT(vllSharedVarDeallocate(nullptr, SHVAR_OPEN), FailsWith(EINVAL));
    EXPECT_TRUE(vllSharedVarDeallocate(variable, SHVAR_CREATE));
}

TEST_F(SharedVariableTest, failing_calls) {
    const struct {
        const char *call;
        int nth, error;
    } rows[] = {{"malloc", 1, ENOMEM},      {"malloc", 2, ENOMEM}, {"shm_open", 1, EMFILE},
                {"ftruncate64", 2, ENOSPC}, {"mmap64", 1, ENOMEM}, {"fcntl64", 1, ENOLCK}};
    for (const auto &row : rows) {
        const FailCall fail(row.call, row.nth, row.error);
        EXPECT_THAT(make(64), FailsWith(row.error)) << row.call;
        EXPECT_FALSE(nameExists()) << row.call;
    }
    SharedVar *variable = make(4);
    // O_CREAT is refused on another user's object (fs.protected_regular), which may be opened all the same.
    for (const int error : {EINTR, EACCES}) {
        const FailCall fail("shm_open", 1, error);
        EXPECT_TRUE(vllSharedVarDeallocate(make(4), SHVAR_OPEN)) << error;
    }
    char buffer[4] = {};
    for (const auto &[nth, error, result, last_error] :
         {std::tuple(1, ENOLCK, 0, ENOLCK), std::tuple(2, ENOLCK, -1, ENOLCK), std::tuple(1, EINTR, 1, 0)}) {
        const FailCall fail("fcntl64", nth, error);
        EXPECT_THAT(vllSharedVarManipulate(buffer, variable, SHVAR_WRITE),
                    Yields(testing::Eq(result), last_error));
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
    const Doorbell locked;
    const pid_t holder = startChild([&] {
        EXPECT_EQ(classicLock(shm_open(kName, O_RDWR, 0), F_WRLCK), 0);
        locked.ring();
        return pause();
    });
    locked.wait();
    std::atomic<int32_t> result{0};
    char buffer[4];
    const auto read = [&] { result = vllSharedVarManipulate(buffer, variable, SHVAR_READ); };
    // A cancelled waiter leaves nothing behind.
    for (const std::function<void()> &body : {std::function<void()>(read), {[&] { make(4); }}}) {
        Sleeper waiter(body);
        EXPECT_TRUE(vllTerminateThread(waiter.handle(), 0));
    }
    // A killed holder does not keep the lock.
    Sleeper reader(read);
    EXPECT_EQ(result, 0);
    kill(holder, SIGKILL);
    finishChild(holder);
    reader.finish();
    EXPECT_EQ(result, 1);
    EXPECT_TRUE(vllSharedVarDeallocate(variable, SHVAR_CREATE));
}

// A thread that is terminated at the moment at which it gets the lock does not keep it.
TEST_F(SharedVariableTest, terminated_when_the_lock_comes) {
    SharedVar *variable = make(4);
    const Fd other(shm_open(kName, O_RDWR | O_CLOEXEC, 0));
    char buffer[4];
    for (int round = 0; round < 100; ++round) {
        ASSERT_EQ(vlliLockFile(other.get(), F_OFD_SETLK, F_WRLCK), 0) << "round " << round;
        Sleeper waiter([&] { vllSharedVarManipulate(buffer, variable, SHVAR_WRITE); });
        EXPECT_EQ(vlliLockFile(other.get(), F_OFD_SETLK, F_UNLCK), 0);
        vllTerminateThread(waiter.handle(), 0);
    }
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
            std::string block(kSize, '\0');
            const int64_t end = nowMs() + 2000;
            for (int round = 0; round < 400 && nowMs() < end; ++round) {
                if (i == 8) {
                    EXPECT_TRUE(vllSharedVarDeallocate(make(kSize), SHVAR_OPEN));
                } else if (i % 2 == 0) {
                    block.assign(kSize, static_cast<char>(i * 50 + round % 50));
                    EXPECT_EQ(vllSharedVarManipulate(block.data(), mine, SHVAR_WRITE), 1);
                } else {
                    EXPECT_EQ(vllSharedVarManipulate(block.data(), mine, SHVAR_READ), 1);
                    EXPECT_EQ(block.find_first_not_of(block[0]), std::string::npos);
                }
            }
            return 0;
        }));
    }
    for (const pid_t child : children) {
        expectSuccess(child);
    }
    EXPECT_TRUE(vllSharedVarDeallocate(variable, SHVAR_CREATE));
}

}  // namespace
