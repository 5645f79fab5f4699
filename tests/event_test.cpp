#include "event.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>
#include <cstring>

#include "support/faults.h"
#include "support/fixture.h"
#include "support/objects.h"
#include "support/syslog_capture.h"

namespace {

class EventTest : public LibraryTest {};

bool isReadable(int fd) {
    pollfd poll_fd = {fd, POLLIN, 0};
    return poll(&poll_fd, 1, 0) == 1;
}

std::string createError(int fd, int efd, int error) {
    return "VLL: CreateEvent: ERROR: event->fd = " + std::to_string(fd) +
           ", event->efd =" + std::to_string(efd) + ", errno = " + std::to_string(error) + "[" +
           strerror(error) + "]\n";
}

TEST_F(EventTest, state_after_each_operation) {
    for (const BOOL manual : {FALSE, TRUE}) {
        const Owned event(vllCreateEvent(manual, 7, nullptr));
        EXPECT_TRUE(IsSignalled(event)) << "created so";
        EXPECT_EQ(IsSignalled(event), manual != 0) << "a wait consumes an auto-reset event only";
        EXPECT_TRUE(vllSetEvent(event));
        EXPECT_TRUE(vllSetEvent(event));
        EXPECT_TRUE(vllResetEvent(event)) << "one reset takes all signals";
        EXPECT_FALSE(IsSignalled(event));
        EXPECT_TRUE(vllResetEvent(event)) << "not signalled already";
        EXPECT_TRUE(vllSetEvent(event));
        EXPECT_TRUE(vllSetEvent(event));
        EXPECT_TRUE(IsSignalled(event));
        EXPECT_EQ(IsSignalled(event), manual != 0);
    }
    const Owned unsignalled(MakeManualEvent());
    EXPECT_FALSE(IsSignalled(unsignalled));
    EXPECT_EQ(TakeLog().size(), 0U);
}

TEST_F(EventTest, record_and_descriptors) {
    const Owned event(MakeAutoEvent());
    const ObjectRecord *record = vlliGetObjectAddress(event);
    EXPECT_EQ(record->flags, OBJF_AUTO_RESET);
    EXPECT_EQ(fcntl(record->fd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    epoll_event ready;
    EXPECT_EQ(epoll_wait(record->efd, &ready, 1, 0), 0) << "an empty set of its own";
    const Owned manual(MakeManualEvent());
    EXPECT_EQ(vlliGetObjectAddress(manual)->flags, 0U);
}

TEST_F(EventTest, the_descriptor_is_readable_exactly_while_signalled) {
    const Owned event(MakeManualEvent());
    const int fd = vllGetEventFd(event);
    EXPECT_EQ(fd, vlliGetObjectAddress(event)->fd);
    EXPECT_FALSE(isReadable(fd));
    vllSetEvent(event);
    EXPECT_TRUE(isReadable(fd));
    EXPECT_TRUE(IsSignalled(event));
    EXPECT_TRUE(isReadable(fd));
    vllResetEvent(event);
    EXPECT_FALSE(isReadable(fd));
}

TEST_F(EventTest, names_are_refused) {
    const Inventory before = TakeInventory();
    for (const char *name : {"", "x"}) {
        errno = 77;
        EXPECT_EQ(vllCreateEvent(1, 1, name), 0U);
        EXPECT_EQ(TakeErrors(), Errors{"VLL: CreateEvent: Named events not supported\n"});
        EXPECT_EQ(vllOpenEvent(name), 0U);
        EXPECT_EQ(errno, 77);
        EXPECT_EQ(TakeErrors(), Errors{"VLL: OpenEvent: Named events not supported\n"});
    }
    EXPECT_EQ(vllOpenEvent(nullptr), 0U);
    TakeErrors();
    EXPECT_EQ(TakeInventory(), before);
}

TEST_F(EventTest, other_handles_are_refused) {
    const Owned timer(vllCreateWaitableTimer(nullptr));
    vllSetWaitableTimer(timer, 1);
    EXPECT_TRUE(WaitUntil([&] { return isReadable(vlliGetObjectAddress(timer)->fd); }));
    errno = 77;
    EXPECT_FALSE(vllSetEvent(timer));
    EXPECT_FALSE(vllResetEvent(timer));
    EXPECT_EQ(vllGetEventFd(timer), -1);
    EXPECT_EQ(vllGetEventFd(1), -1);
    EXPECT_EQ(errno, 77);
    EXPECT_EQ(TakeErrors(), Errors{});
    EXPECT_TRUE(IsSignalled(timer)) << "untouched";

    const HANDLE closed = MakeAutoEvent();
    vllCloseHandle(closed);
    for (const HANDLE handle : {closed, HANDLE{0x10080}}) {
        for (const auto operation : {vllSetEvent, vllResetEvent}) {
            errno = 0;
            EXPECT_FALSE(operation(handle));
            EXPECT_EQ(errno, EINVAL);
            EXPECT_EQ(TakeErrors().size(), 1U);
        }
        errno = 0;
        EXPECT_EQ(vllGetEventFd(handle), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(TakeErrors().size(), 1U);
    }
}

TEST_F(EventTest, a_duplicate_shares_the_counter_and_the_kind) {
    const Owned event(MakeAutoEvent());
    const Owned duplicate(vllDuplicateHandle(event));
    EXPECT_NE(vllGetEventFd(duplicate), vllGetEventFd(event));
    vllSetEvent(duplicate);
    EXPECT_TRUE(IsSignalled(event));
    EXPECT_FALSE(IsSignalled(duplicate));
    vllSetEvent(event);
    EXPECT_TRUE(vllResetEvent(duplicate));
    EXPECT_FALSE(IsSignalled(event));
}

TEST_F(EventTest, failing_calls_of_a_creation) {
    const int fd = NextFd();
    const Failure failures[] = {
        {"eventfd", 1, EMFILE, {createError(-1, -1, EMFILE)}},
        {"fcntl64", 1, EINVAL, {createError(fd, -1, EINVAL)}},
        {"epoll_create", 1, ENOMEM, {createError(fd, -1, ENOMEM)}},
    };
    for (const Failure &failure : failures) {
        ExpectFailure(
            failure, [] { return MakeAutoEvent(TRUE); }, 0);
    }
}

TEST_F(EventTest, failing_calls_of_a_duplication) {
    const Owned event(MakeAutoEvent());
    const std::string at = "VLLI: DuplicateEvent: new->fd = ";
    const Failure failures[] = {
        {"dup", 1, EMFILE, {at + "-1, new->efd\n"}},
        {"dup", 2, EMFILE, {at + std::to_string(NextFd()) + ", new->efd\n"}},
    };
    for (const Failure &failure : failures) {
        ExpectFailure(
            failure, [&] { return vllDuplicateHandle(event); }, 0);
    }
}

TEST_F(EventTest, a_full_counter_refuses_the_signal_and_stays_signalled) {
    const Owned event(MakeManualEvent());
    const uint64_t full = 0xFFFFFFFFFFFFFFFE;
    ASSERT_EQ(write(vllGetEventFd(event), &full, sizeof full), 8);
    errno = 0;
    EXPECT_FALSE(vllSetEvent(event));
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_TRUE(IsSignalled(event));
    EXPECT_TRUE(vllResetEvent(event));
    EXPECT_FALSE(IsSignalled(event));
}

// An event holds two of the process's 256 descriptors.
TEST_F(EventTest, running_out_of_descriptors_and_recovering) {
    std::vector<int> plain;  // the table would end before the descriptors
    for (int i = 0; i < 100; ++i) {
        plain.push_back(dup(0));
        ASSERT_NE(plain.back(), -1);
    }
    std::vector<HANDLE> events;
    for (HANDLE event; (event = MakeAutoEvent()) != 0; events.push_back(event)) {
        ASSERT_LT(events.size(), kObjectCount);
    }
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(TakeErrors().size(), 1U);
    const Inventory full = TakeInventory();
    errno = 0;
    EXPECT_EQ(vllDuplicateHandle(events[0]), 0U);
    EXPECT_EQ(errno, EMFILE);
    errno = 0;
    EXPECT_EQ(MakeAutoEvent(), 0U);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_FALSE(IsSignalled(events[0])) << "asking needs no descriptor";
    close(plain.back());  // with a spare descriptor, if there was none, still no pair of them
    plain.pop_back();
    EXPECT_TRUE(vllCloseHandle(events.back()));
    events.pop_back();
    events.push_back(MakeAutoEvent(TRUE));
    EXPECT_TRUE(IsSignalled(events.back())) << "recovered";
    EXPECT_EQ(TakeInventory().free_objects, full.free_objects);
    for (const HANDLE event : events) {
        EXPECT_TRUE(vllCloseHandle(event));
    }
    for (const int fd : plain) {
        close(fd);
    }
    TakeErrors();
}

}  // namespace
