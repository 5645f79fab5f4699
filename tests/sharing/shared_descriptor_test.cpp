// Descriptor sharing: the server and its clients, byte for byte and against peers that do not play by the rules.
#include "sharing/shared_descriptor.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <atomic>
#include <cstring>
#include <thread>

#include "base/descriptor.h"
#include "base/guards.h"
#include "support/child.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/matchers.h"
#include "support/objects.h"
#include "support/threads.h"

namespace {

constexpr int kLimitMs = 30000;
constexpr auto kNoServer = static_cast<uintptr_t>(-1);

// A socket on the server's address: connected to it, or listening there as another server might. -1 on failure.
Fd rawSocket(bool listening, int flags = 0) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, "\0SHARING_FD_SERVER", 18);
    auto *const name = reinterpret_cast<sockaddr *>(&address);
    Fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
    const bool made = listening ? bind(fd.get(), name, 20) == 0 && listen(fd.get(), 8) == 0
                                : connect(fd.get(), name, 20) == 0;
    if (!made) {
        fd.reset();
    }
    return fd;
}

bool readable(int fd) {
    pollfd ready = {fd, POLLIN, 0};
    return poll(&ready, 1, kLimitMs) == 1;
}

// Sends what another server might: a status and descriptors.
void sendRaw(int fd, std::vector<char> data, const std::vector<int> &descriptors) {
    alignas(cmsghdr) char control[CMSG_SPACE(8 * sizeof(int))] = {};
    iovec part = {data.data(), data.size()};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (!descriptors.empty()) {
        const size_t size = descriptors.size() * sizeof(int);
        message.msg_control = control;
        message.msg_controllen = CMSG_SPACE(size);
        *CMSG_FIRSTHDR(&message) = {CMSG_LEN(size), SOL_SOCKET, SCM_RIGHTS};
        memcpy(CMSG_DATA(CMSG_FIRSTHDR(&message)), descriptors.data(), size);
    }
    EXPECT_EQ(sendmsg(fd, &message, MSG_NOSIGNAL), static_cast<ssize_t>(data.size()));
}

// True when both are the same open file: they share the file offset.
bool sameOpenFile(int a, int b) {
    lseek(a, 7, SEEK_SET);
    const bool first = lseek(b, 0, SEEK_CUR) == 7;
    lseek(a, 3, SEEK_SET);
    return first && lseek(b, 0, SEEK_CUR) == 3;
}

// Each test runs in a network namespace of its own, where no other server has the address.
class SharedDescriptorTest : public LibraryTest {
  protected:
    static void SetUpTestSuite() { ASSERT_EQ(unshare(CLONE_NEWNET), 0); }
    void SetUp() override {
        LibraryTest::SetUp();
        file_.reset(open("/dev/shm", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
        ASSERT_TRUE(file_);
        ASSERT_EQ(ftruncate(file_.get(), 100), 0);
    }
    void TearDown() override {
        vllDeallocateSharedFdList();
        file_.reset();
        LibraryTest::TearDown();
    }
    // Publishes, and makes the server answer: it is idle then, as a fork under ThreadSanitizer needs it.
    void publish(const char *name, int fd) {
        ASSERT_TRUE(vllSetSharedFileDescriptor(fd, name));
        ASSERT_THAT(vllGetSharedFileDescriptor("nobody published this"), FailsWith(ENOENT, -1));
    }
    Fd file_;
};

TEST_F(SharedDescriptorTest, another_process_gets_the_same_open_file) {
    const Fd other(open("/dev/null", O_RDONLY | O_CLOEXEC));
    publish("a", file_.get());
    publish("b", other.get());
    publish("a", other.get());  // the older one of a name is found
    expectInChild([&] {
        const Fd fetched(vllGetSharedFileDescriptor("a"));
        EXPECT_TRUE(sameOpenFile(file_.get(), fetched.get()));
        const Fd null(vllGetSharedFileDescriptor("b"));
        EXPECT_TRUE(null);
        EXPECT_FALSE(sameOpenFile(file_.get(), null.get()));
        EXPECT_THAT(vllGetSharedFileDescriptor("c"), FailsWith(ENOENT, -1));
        return 0;
    });
    EXPECT_TRUE(sameOpenFile(file_.get(), Fd(vllGetSharedFileDescriptor("a")).get()));
    EXPECT_EQ(vllDeallocateSharedFdList(), 0);
    EXPECT_EQ(server_thread_id, kNoServer);
    EXPECT_THAT(vllGetSharedFileDescriptor("a"), FailsWith(ECONNREFUSED, -1));
    EXPECT_NE(fcntl(file_.get(), F_GETFD), -1);
    EXPECT_EQ(vllDeallocateSharedFdList(), 0);  // of an empty registry
}

TEST_F(SharedDescriptorTest, refusals) {
    EXPECT_THAT(vllSetSharedFileDescriptor(250, "a"), FailsWith(EBADF));
    EXPECT_THAT(vllSetSharedFileDescriptor(0, nullptr), FailsWith(EINVAL));
    EXPECT_THAT(vllSetSharedFileDescriptor(0, std::string(1024, 'n').c_str()), FailsWith(ENAMETOOLONG));
    EXPECT_THAT(vllGetSharedFileDescriptor(nullptr), FailsWith(EINVAL, -1));
    for (const auto &[call, nth, error] : {std::tuple("malloc", 1, ENOMEM), std::tuple("malloc", 2, ENOMEM),
                                           std::tuple("pthread_create", 1, EAGAIN)}) {
        const FailCall fail(call, nth, error);
        EXPECT_THAT(vllSetSharedFileDescriptor(0, "a"), FailsWith(error)) << call;
        EXPECT_EQ(shared_fd_list, nullptr) << call;
        EXPECT_EQ(server_thread_id, kNoServer) << call;
    }
}

TEST_F(SharedDescriptorTest, requests_byte_for_byte) {
    const std::string longest(1023, 'n');
    publish("name", file_.get());
    publish(longest.c_str(), file_.get());
    const std::string nul(1, '\0');
    const struct {
        std::string request;
        bool end;  // the client ends its half after the request
        int32_t status;
    } rows[] = {
        {"name" + nul, false, 0},
        {longest + nul, false, 0},
        {"nam" + nul, false, 2},
        {nul, false, 2},
        {"name", true, 1},
        {"", true, 1},
        {std::string(1024, 'n') + nul, false, 1},
        {std::string(100000, 'n') + nul, false, 1},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        const Fd client = rawSocket(false);
        ASSERT_EQ(send(client.get(), row.request.data(), row.request.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(row.request.size()));
        if (row.end) {
            shutdown(client.get(), SHUT_WR);
        }
        char data[16] = {};
        ASSERT_TRUE(readable(client.get()));
        EXPECT_EQ(recv(client.get(), data, sizeof data, 0), 4);  // and without a buffer for a descriptor
        EXPECT_EQ(memcmp(data, &row.status, 4), 0);
        ASSERT_TRUE(readable(client.get()));
        EXPECT_EQ(recv(client.get(), data, 1, 0), 0);  // closed after the response
    }
    for (int i = 0; i < 50; ++i) {
        const Fd vanishes = rawSocket(false);
        EXPECT_EQ(send(vanishes.get(), "name", 5, MSG_NOSIGNAL), 5);
    }
    EXPECT_THAT(vllGetSharedFileDescriptor(std::string(3000, 'n').c_str()), FailsWith(EBADE, -1));
}

TEST_F(SharedDescriptorTest, responses_byte_for_byte) {
    const Fd listener = rawSocket(true);
    ASSERT_TRUE(listener);
    const struct {
        std::vector<char> data;
        size_t descriptors;
        int error;  // 0: a descriptor comes
    } rows[] = {
        {{0, 0, 0, 0}, 1, 0},      {{0, 0, 0, 0}, 3, 0},     {{2, 0, 0, 0}, 1, 0},
        {{0, 0, 0, 0}, 0, EAGAIN}, {{1, 0, 0, 0}, 0, EBADE}, {{2, 0, 0, 0}, 0, ENOENT},
        {{9, 0, 0, 0}, 0, EAGAIN}, {{0, 0}, 0, EAGAIN},      {{}, 0, EAGAIN},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        std::thread client([&row] {
            errno = 0;
            const Fd received(vllGetSharedFileDescriptor("name"));
            EXPECT_EQ(received.get() == -1 ? errno : 0, row.error);
        });
        Fd peer(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        char request[5];
        EXPECT_EQ(recv(peer.get(), request, sizeof request, MSG_WAITALL), 5);
        EXPECT_STREQ(request, "name");
        if (!row.data.empty()) {
            sendRaw(peer.get(), row.data, std::vector<int>(row.descriptors, file_.get()));
        }
        peer.reset();
        client.join();
    }
}

TEST_F(SharedDescriptorTest, a_closed_descriptor_is_not_handed_out) {
    Fd copy(fcntl(file_.get(), F_DUPFD_CLOEXEC, 200));  // a number that is not used again at once
    publish("a", copy.get());
    copy.reset();
    EXPECT_THAT(vllGetSharedFileDescriptor("a"), FailsWith(EAGAIN, -1));
}

TEST_F(SharedDescriptorTest, a_silent_client_does_not_hold_up_the_emptying) {
    for (const char *request : {"", "half a name"}) {
        publish("a", file_.get());
        const Fd silent = rawSocket(false);
        ASSERT_NE(send(silent.get(), request, strlen(request), MSG_NOSIGNAL), -1);
        const int64_t start = nowMs();
        EXPECT_EQ(vllDeallocateSharedFdList(), 0);
        EXPECT_LT(nowMs() - start, kLimitMs);
        EXPECT_TRUE(rawSocket(true));  // the address is free
    }
}

TEST_F(SharedDescriptorTest, publish_empty_publish_again) {
    for (int round = 0; round < 200; ++round) {
        ASSERT_TRUE(vllSetSharedFileDescriptor(file_.get(), "a"));
        ASSERT_TRUE(round % 3 == 0 || Fd(vllGetSharedFileDescriptor("a"))) << round;
        ASSERT_EQ(vllDeallocateSharedFdList(), 0);
    }
}

#if !defined(__SANITIZE_THREAD__)  // forks beside a busy thread
TEST_F(SharedDescriptorTest, a_child_forked_while_the_server_starts_does_not_keep_the_address) {
    for (int round = 0; round < 100; ++round) {
        ASSERT_TRUE(vllSetSharedFileDescriptor(file_.get(), "a"));
        const pid_t child = startChild([] { return pause(); });
        EXPECT_EQ(vllDeallocateSharedFdList(), 0);
        publish("a", file_.get());
        kill(child, SIGKILL);
        EXPECT_EQ(finishChild(child).status, SIGKILL);
        EXPECT_EQ(vllDeallocateSharedFdList(), 0);
    }
}
#endif

// In a process that has not used the library yet: a child that is forked while another thread holds a lock of the library
// finds it free, also when an operation failed for want of vllvwincompatMain().
TEST(FreshSharedDescriptorTest, fork_before_the_first_use) {
    SKIP_UNLESS_FORKS_BESIDE_BUSY_THREADS();
    if (!inFreshProcess()) {
        return;
    }
    for (const bool called_too_early : {false, true}) {
        expectInChild([&] {
            EXPECT_EQ(unshare(CLONE_NEWNET), 0);
            if (called_too_early) {
                EXPECT_THAT(vllSetSharedFileDescriptor(0, "a"), FailsWith(ENOMEM));
            }
            vllvwincompatMain();
            MutexLock lock(&list_mutex);
            std::thread forker = startAsleep([] {
                expectInChild([] {
                    EXPECT_TRUE(vllSetSharedFileDescriptor(0, "a"));
                    EXPECT_NE(vllCreateMutex(0, "vll_fresh"), 0U);
                    return 0;
                });
            });
            lock.unlock();
            forker.join();
            return 0;
        });
    }
    shm_unlink("vll_fresh");
}

TEST_F(SharedDescriptorTest, a_second_publisher_is_not_found) {
    publish("a", file_.get());
    expectInChild([&] {
        EXPECT_EQ(shared_fd_list, nullptr);  // a child starts with an empty registry
        EXPECT_TRUE(vllSetSharedFileDescriptor(file_.get(), "b"));
        // Its server cannot have the address, and ends.
        EXPECT_TRUE(waitUntil([] {
            const MutexLock lock(&list_mutex);
            return server_thread_id == kNoServer;
        }));
        EXPECT_THAT(vllGetSharedFileDescriptor("b"), FailsWith(ENOENT, -1));
        EXPECT_EQ(vllDeallocateSharedFdList(), 0);
        return 0;
    });
    EXPECT_TRUE(Fd(vllGetSharedFileDescriptor("a")));
}

TEST_F(SharedDescriptorTest, lookups_from_many_processes) {
    publish("a", file_.get());
    std::vector<pid_t> children;
    for (int i = 0; i < 8; ++i) {
        children.push_back(startChild([&] {
            for (int round = 0; round < 125; ++round) {
                EXPECT_TRUE(Fd(vllGetSharedFileDescriptor("a"))) << errno;
            }
            return 0;
        }));
    }
    for (const pid_t child : children) {
        expectSuccess(child);
    }
}

TEST_F(SharedDescriptorTest, cancelled_in_a_lookup) {
    const Fd listener = rawSocket(true);  // a server that reads nothing and never answers
    ASSERT_TRUE(listener);
    const auto cancelLookup = [](const std::string &name) {
        Sleeper lookup([&] { vllGetSharedFileDescriptor(name.c_str()); });
        EXPECT_TRUE(vllTerminateThread(lookup.handle(), 1));
    };
    cancelLookup("a");                      // waits for the answer
    cancelLookup(std::string(50000, 'n'));  // waits until its request is read
    std::vector<Fd> queue;
    do {
        queue.push_back(rawSocket(false, SOCK_NONBLOCK));
    } while (queue.back());
    cancelLookup("a");  // waits until it is accepted
}

}  // namespace
