#include "sharing/shared_descriptor.h"
#include "base/descriptor.h"
#include "base/guards.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <atomic>
#include <cstring>
#include <thread>

#include "support/child.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/matchers.h"
#include "support/objects.h"

namespace {

constexpr int kLimitMs = 30000;

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

// What the server answers: the status, the length of the data and the descriptor.
struct Response {
    ssize_t length;
    int32_t status;
    int descriptor;
};

Response receiveRaw(int fd) {
    Response response = {-1, -1, -1};
    if (!readable(fd)) {
        return response;
    }
    char data[16] = {};
    alignas(cmsghdr) char control[CMSG_SPACE(8 * sizeof(int))] = {};
    iovec part = {data, sizeof data};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    response.length = recvmsg(fd, &message, 0);
    memcpy(&response.status, data, sizeof response.status);
    const cmsghdr *header = CMSG_FIRSTHDR(&message);
    if (header != nullptr && header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS &&
        header->cmsg_len == CMSG_LEN(sizeof(int))) {
        memcpy(&response.descriptor, CMSG_DATA(header), sizeof(int));
    }
    return response;
}

// Sends status and descriptors as another server might.
void sendRaw(int fd, const void *data, size_t length, const std::vector<int> &descriptors) {
    alignas(cmsghdr) char control[CMSG_SPACE(8 * sizeof(int))] = {};
    iovec part = {const_cast<void *>(data), length};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (!descriptors.empty()) {
        const size_t bytes = descriptors.size() * sizeof(int);
        message.msg_control = control;
        message.msg_controllen = CMSG_SPACE(bytes);
        cmsghdr *header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(bytes);
        memcpy(CMSG_DATA(header), descriptors.data(), bytes);
    }
    EXPECT_EQ(sendmsg(fd, &message, MSG_NOSIGNAL), static_cast<ssize_t>(length));
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
    // Publishes and waits until the server answers, and is idle again: a child forked beside a busy thread can
    // hang on ThreadSanitizer's own locks.
    void publish(const char *name, int fd) {
        ASSERT_TRUE(vllSetSharedFileDescriptor(fd, name));
        ASSERT_TRUE(waitUntil(
            [] { return vllGetSharedFileDescriptor("nobody published this") == -1 && errno == ENOENT; }));
    }
    Fd file_;
};

TEST_F(SharedDescriptorTest, another_process_gets_the_same_open_file) {
    Fd other(open("/dev/null", O_RDONLY | O_CLOEXEC));
    publish("a", file_.get());
    publish("b", other.get());
    publish("a", other.get());  // the older one of a name is found
    const ChildResult child = runInChild([&] {
        const Fd fetched(vllGetSharedFileDescriptor("a"));
        EXPECT_TRUE(sameOpenFile(file_.get(), fetched.get()));
        const Fd null(vllGetSharedFileDescriptor("b"));
        EXPECT_TRUE(null);
        EXPECT_FALSE(sameOpenFile(file_.get(), null.get()));
        EXPECT_THAT(vllGetSharedFileDescriptor("c") != -1, FailsWith(ENOENT));
        return 0;
    });
    EXPECT_EQ(child.status, 0);
    const Fd own(vllGetSharedFileDescriptor("a"));
    EXPECT_TRUE(sameOpenFile(file_.get(), own.get()));
    EXPECT_EQ(vllDeallocateSharedFdList(), 0);
    EXPECT_EQ(server_thread_id, static_cast<uintptr_t>(-1));
    EXPECT_THAT(vllGetSharedFileDescriptor("a") != -1, FailsWith(ECONNREFUSED));
    EXPECT_NE(fcntl(file_.get(), F_GETFD), -1);
    EXPECT_EQ(vllDeallocateSharedFdList(), 0);  // of an empty registry
}

TEST_F(SharedDescriptorTest, refusals) {
    EXPECT_THAT(vllSetSharedFileDescriptor(250, "a"), FailsWith(EBADF));
    EXPECT_THAT(vllSetSharedFileDescriptor(0, nullptr), FailsWith(EINVAL));
    EXPECT_THAT(vllSetSharedFileDescriptor(0, std::string(1024, 'n').c_str()), FailsWith(ENAMETOOLONG));
    EXPECT_THAT(vllGetSharedFileDescriptor(nullptr) != -1, FailsWith(EINVAL));
    for (const auto &[call, error] : {std::pair("malloc", ENOMEM), std::pair("strdup", ENOMEM),
                                      std::pair("pthread_create", EAGAIN), std::pair("eventfd", EMFILE)}) {
        const FailCall fail(call, 1, error);
        EXPECT_THAT(vllSetSharedFileDescriptor(0, "a"), FailsWith(error)) << call;
        EXPECT_EQ(shared_fd_list, nullptr) << call;
        EXPECT_EQ(server_thread_id, static_cast<uintptr_t>(-1)) << call;
    }
}

TEST_F(SharedDescriptorTest, requests_byte_for_byte) {
    const std::string longest(1023, 'n');
    publish("name", file_.get());
    publish(longest.c_str(), file_.get());
    struct Row {
        int line;
        std::string request;
        bool end;  // the client ends its half after the request
        int32_t status;
    };
    const std::string nul(1, '\0');
    const Row rows[] = {
        {__LINE__, "name" + nul, false, 0},
        {__LINE__, longest + nul, false, 0},
        {__LINE__, "nam" + nul, false, 2},
        {__LINE__, nul, false, 2},
        {__LINE__, "name", true, 1},
        {__LINE__, "", true, 1},
        {__LINE__, std::string(1024, 'n') + nul, false, 1},
        {__LINE__, std::string(100000, 'n') + nul, false, 1},
    };
    for (const Row &row : rows) {
        const Fd client = rawSocket(false);
        ASSERT_EQ(send(client.get(), row.request.data(), row.request.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(row.request.size()));
        if (row.end) {
            shutdown(client.get(), SHUT_WR);
        }
        const Response response = receiveRaw(client.get());
        const Fd received(response.descriptor);
        EXPECT_EQ(response.length, 4) << "line " << row.line;
        EXPECT_EQ(response.status, row.status) << "line " << row.line;
        EXPECT_EQ(static_cast<bool>(received), row.status == 0) << "line " << row.line;
        char byte;
        EXPECT_TRUE(readable(client.get()));
        EXPECT_EQ(recv(client.get(), &byte, 1, 0), 0) << "closed after the response, line " << row.line;
    }
    for (int i = 0; i < 50; ++i) {
        const Fd vanishes = rawSocket(false);
        EXPECT_EQ(send(vanishes.get(), "name", 5, MSG_NOSIGNAL), 5);
    }
    EXPECT_THAT(vllGetSharedFileDescriptor(std::string(3000, 'n').c_str()) != -1, FailsWith(EBADE));
}

TEST_F(SharedDescriptorTest, responses_byte_for_byte) {
    const Fd listener = rawSocket(true);
    ASSERT_TRUE(listener);
    struct Row {
        int line;
        std::vector<char> data;
        size_t descriptors;
        int error;  // 0: a descriptor comes
    };
    const Row rows[] = {
        {__LINE__, {0, 0, 0, 0}, 1, 0},      {__LINE__, {0, 0, 0, 0}, 3, 0},
        {__LINE__, {2, 0, 0, 0}, 1, 0},      {__LINE__, {0, 0, 0, 0}, 0, EAGAIN},
        {__LINE__, {1, 0, 0, 0}, 0, EBADE},  {__LINE__, {2, 0, 0, 0}, 0, ENOENT},
        {__LINE__, {9, 0, 0, 0}, 0, EAGAIN}, {__LINE__, {0, 0}, 0, EAGAIN},
        {__LINE__, {}, 0, EAGAIN},
    };
    for (const Row &row : rows) {
        int result = -2, error = 0;
        std::thread client([&] {
            errno = 0;
            result = vllGetSharedFileDescriptor("name");
            error = errno;
        });
        {
            const Fd peer(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
            std::string request;
            char byte;
            while (request.size() < 5 && recv(peer.get(), &byte, 1, 0) == 1) {
                request += byte;
            }
            EXPECT_EQ(request, std::string("name\0", 5));
            if (!row.data.empty()) {
                sendRaw(peer.get(), row.data.data(), row.data.size(),
                        std::vector<int>(row.descriptors, file_.get()));
            }
        }
        client.join();
        const Fd received(result);
        EXPECT_EQ(static_cast<bool>(received), row.error == 0) << "line " << row.line;
        if (row.error != 0) {
            EXPECT_EQ(error, row.error) << "line " << row.line;
        }
    }
}

TEST_F(SharedDescriptorTest, a_closed_descriptor_is_not_handed_out) {
    Fd copy(fcntl(file_.get(), F_DUPFD_CLOEXEC, 200));  // a number that is not used again at once
    publish("a", copy.get());
    copy.reset();
    EXPECT_THAT(vllGetSharedFileDescriptor("a") != -1, FailsWith(EAGAIN));
}

TEST_F(SharedDescriptorTest, a_silent_client_does_not_hold_up_the_emptying) {
    for (const char *request : {"", "half a name"}) {
        publish("a", file_.get());
        const Fd silent = rawSocket(false);
        ASSERT_EQ(send(silent.get(), request, strlen(request), MSG_NOSIGNAL),
                  static_cast<ssize_t>(strlen(request)));
        const int64_t start = nowMs();
        EXPECT_EQ(vllDeallocateSharedFdList(), 0);
        EXPECT_LT(nowMs() - start, kLimitMs);
        EXPECT_TRUE(rawSocket(true));  // the address is free
    }
}

TEST_F(SharedDescriptorTest, publish_empty_publish_again) {
    for (int round = 0; round < 200; ++round) {
        ASSERT_TRUE(vllSetSharedFileDescriptor(file_.get(), "a"));
        if (round % 3 == 0) {
            ASSERT_TRUE(waitUntil([] { return Fd(vllGetSharedFileDescriptor("a")).get() != -1; })) << round;
        }
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

TEST_F(SharedDescriptorTest, a_second_publisher_is_not_found) {
    publish("a", file_.get());
    const ChildResult child = runInChild([&] {
        EXPECT_EQ(shared_fd_list, nullptr);  // a child starts with an empty registry
        EXPECT_TRUE(vllSetSharedFileDescriptor(file_.get(), "b"));
        // Its server cannot have the address, ends, and says so.
        EXPECT_TRUE(waitUntil([] {
            const MutexLock lock(&list_mutex);
            return server_thread_id == static_cast<uintptr_t>(-1);
        }));
        EXPECT_THAT(vllGetSharedFileDescriptor("b") != -1, FailsWith(ENOENT));
        EXPECT_EQ(vllDeallocateSharedFdList(), 0);
        return 0;
    });
    EXPECT_EQ(child.status, 0);
    EXPECT_TRUE(Fd(vllGetSharedFileDescriptor("a")));
}

TEST_F(SharedDescriptorTest, lookups_from_many_processes) {
    publish("a", file_.get());
    int gate[2];  // opens when all children are there
    ASSERT_EQ(pipe(gate), 0);
    std::vector<pid_t> children;
    for (int i = 0; i < 8; ++i) {
        children.push_back(startChild([&] {
            close(gate[1]);
            char byte;
            EXPECT_EQ(read(gate[0], &byte, 1), 0);
            for (int round = 0; round < 125; ++round) {
                const Fd fetched(vllGetSharedFileDescriptor("a"));
                EXPECT_TRUE(fetched) << errno;
            }
            return 0;
        }));
    }
    close(gate[0]);
    close(gate[1]);
    for (const pid_t child : children) {
        EXPECT_EQ(finishChild(child).status, 0);
    }
}

TEST_F(SharedDescriptorTest, cancelled_in_a_lookup) {
    const Fd listener = rawSocket(true);  // a server that reads nothing and never answers
    ASSERT_TRUE(listener);
    std::string name;
    std::atomic<pid_t> tid{0};
    const auto lookup = [&] {
        tid = gettid();
        vllGetSharedFileDescriptor(name.c_str());
    };
    const auto cancelLookup = [&] {
        tid = 0;
        const HANDLE thread = startThread(lookup);
        EXPECT_TRUE(waitUntil([&] { return tid != 0; }));
        EXPECT_TRUE(waitUntilAsleep(tid));
        EXPECT_TRUE(vllTerminateThread(thread, 1));
        finishThread(thread);
    };
    name = "a";
    cancelLookup();  // waits for the answer
    name = std::string(50000, 'n');
    cancelLookup();  // waits until its request is read
    std::vector<Fd> queue;
    do {
        queue.push_back(rawSocket(false, SOCK_NONBLOCK));
    } while (queue.back());
    cancelLookup();  // waits until it is accepted
}

}  // namespace
