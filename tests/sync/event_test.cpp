#include "sync/event.h"
#include "base/descriptor.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>
#include <cstring>

#include "support/fixture.h"
#include "support/matchers.h"
#include "support/objects.h"
#include "support/syslog_capture.h"

namespace {

class EventTest : public LibraryTest {};

bool isReadable(int fd) {
    pollfd poll_fd = {fd, POLLIN, 0};
    return poll(&poll_fd, 1, 0) == 1;
}

// The event stands as it should, asked through its descriptor and by two waits.
void expectSignalled(HANDLE event, bool signalled, bool manual) {
    EXPECT_EQ(isReadable(vllGetEventFd(event)), signalled);
    EXPECT_EQ(isSignalled(event), signalled);
    EXPECT_EQ(isSignalled(event), signalled && manual) << "a wait consumes an auto-reset event only";
    EXPECT_EQ(isReadable(vllGetEventFd(event)), signalled && manual);
}

TEST_F(EventTest, state_after_each_operation) {
    for (const BOOL manual : {FALSE, TRUE}) {
        const Owned event(vllCreateEvent(manual, 7, nullptr)),
            unsignalled(vllCreateEvent(manual, 0, nullptr));
        const ObjectRecord *record = vlliGetObjectAddress(event);
        EXPECT_EQ(record->flags, manual ? 0 : OBJF_AUTO_RESET);
        EXPECT_EQ(fcntl(record->fd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
        EXPECT_EQ(vllGetEventFd(event), record->fd);
        epoll_event ready;
        EXPECT_EQ(epoll_wait(record->efd, &ready, 1, 0), 0) << "an empty set of its own";
        expectSignalled(unsignalled, false, manual);
        expectSignalled(event, true, manual);
        EXPECT_TRUE(vllSetEvent(event));
        EXPECT_TRUE(vllSetEvent(event));
        EXPECT_TRUE(vllResetEvent(event)) << "one reset takes all signals";
        expectSignalled(event, false, manual);
        EXPECT_TRUE(vllResetEvent(event)) << "not signalled already";
        EXPECT_TRUE(vllSetEvent(event));
        EXPECT_TRUE(vllSetEvent(event));
        expectSignalled(event, true, manual);
    }
    EXPECT_EQ(takeLog().size(), 0U);
}

TEST_F(EventTest, names_are_refused) {
    for (const char *name : {"", "x"}) {
        errno = 77;
        EXPECT_EQ(vllCreateEvent(1, 1, name), 0U);
        EXPECT_EQ(takeErrors(), Errors{"VLL: CreateEvent: Named events not supported\n"});
        EXPECT_EQ(vllOpenEvent(name), 0U);
        EXPECT_EQ(vllOpenEvent(nullptr), 0U);
        EXPECT_EQ(errno, 77);
        EXPECT_EQ(takeErrors(), Errors(2, "VLL: OpenEvent: Named events not supported\n"));
    }
}

TEST_F(EventTest, other_handles_are_refused) {
    const Owned timer(vllCreateWaitableTimer(nullptr));
    vllSetWaitableTimer(timer, 1);
    EXPECT_TRUE(waitUntil([&] { return isReadable(vlliGetObjectAddress(timer)->fd); }));
    errno = 77;
    EXPECT_FALSE(vllSetEvent(timer));
    EXPECT_FALSE(vllResetEvent(timer));
    EXPECT_EQ(vllGetEventFd(timer), -1);
    EXPECT_EQ(vllGetEventFd(1), -1);
    EXPECT_EQ(errno, 77);
    EXPECT_EQ(takeErrors(), Errors{});
    EXPECT_TRUE(isSignalled(timer)) << "untouched";

    const HANDLE closed = makeAutoEvent();
    vllCloseHandle(closed);
    for (const HANDLE handle : {closed, HANDLE{0x10080}}) {
        EXPECT_THAT(vllSetEvent(handle), Yields(FALSE, EINVAL));
        EXPECT_THAT(vllResetEvent(handle), Yields(FALSE, EINVAL));
        EXPECT_THAT(vllGetEventFd(handle), Yields(-1, EINVAL));
        EXPECT_EQ(takeErrors().size(), 3U);
    }
}

TEST_F(EventTest, a_duplicate_shares_the_counter_and_the_kind) {
    Owned event(makeAutoEvent());
    const Owned duplicate(vllDuplicateHandle(event));
    EXPECT_NE(HANDLE{duplicate}, HANDLE{event});
    EXPECT_NE(vllGetEventFd(duplicate), vllGetEventFd(event));
    vllSetEvent(duplicate);
    EXPECT_TRUE(isSignalled(event));
    EXPECT_FALSE(isSignalled(duplicate));
    vllSetEvent(event);
    EXPECT_TRUE(vllResetEvent(duplicate));
    EXPECT_FALSE(isSignalled(event));
    EXPECT_TRUE(vllCloseHandle(event.release()));
    EXPECT_TRUE(vllSetEvent(duplicate));
    expectSignalled(duplicate, true, false);
}

TEST_F(EventTest, failing_calls) {
    const Owned event(makeAutoEvent());
    const int fd = nextFd();
    const auto created = [](int new_fd, int error) {
        return format("VLL: CreateEvent: ERROR: event->fd = %d, event->efd =%d, errno = %d[%s]\n", new_fd, -1,
                      error, strerror(error));
    };
    const auto duplicated = [](int new_fd) {
        return format("VLLI: DuplicateEvent: new->fd = %d, new->efd\n", new_fd);
    };
    for (const Failure &failure : {Failure{"eventfd", 1, EMFILE, {created(-1, EMFILE)}},
                                   Failure{"fcntl64", 1, EINVAL, {created(fd, EINVAL)}},
                                   Failure{"epoll_create", 1, ENOMEM, {created(fd, ENOMEM)}}}) {
        expectFailure(
            failure, [] { return makeAutoEvent(TRUE); }, 0);
    }
    for (const Failure &failure :
         {Failure{"dup", 1, EMFILE, {duplicated(-1)}}, Failure{"dup", 2, EMFILE, {duplicated(fd)}}}) {
        expectFailure(
            failure, [&] { return vllDuplicateHandle(event); }, 0);
    }
}

TEST_F(EventTest, a_full_counter_refuses_the_signal_and_stays_signalled) {
    const Owned event(makeManualEvent());
    const uint64_t full = 0xFFFFFFFFFFFFFFFE;
    ASSERT_EQ(write(vllGetEventFd(event), &full, sizeof full), 8);
    EXPECT_THAT(vllSetEvent(event), Yields(FALSE, EAGAIN));
    expectSignalled(event, true, true);
    EXPECT_TRUE(vllResetEvent(event));
    expectSignalled(event, false, true);
}

// An event holds two of the process's 256 descriptors.
TEST_F(EventTest, running_out_of_descriptors_and_recovering) {
    std::vector<Fd> plain;  // the table would end before the descriptors
    for (int i = 0; i < 100; ++i) {
        plain.emplace_back(dup(0));
        ASSERT_TRUE(plain.back());
    }
    std::vector<HANDLE> events;
    for (HANDLE event; (event = makeAutoEvent()) != 0; events.push_back(event)) {
        ASSERT_LT(events.size(), kObjectCount);
    }
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(takeErrors().size(), 1U);
    const Inventory full = takeInventory();
    EXPECT_THAT(vllDuplicateHandle(events[0]), Yields(0U, EMFILE));
    EXPECT_THAT(makeAutoEvent(), Yields(0U, EMFILE));
    EXPECT_FALSE(isSignalled(events[0])) << "asking needs no descriptor";
    plain.pop_back();  // with a spare descriptor, if there was none, still no pair of them
    EXPECT_TRUE(vllCloseHandle(events.back()));
    events.back() = makeAutoEvent(TRUE);
    EXPECT_TRUE(isSignalled(events.back())) << "recovered";
    EXPECT_EQ(takeInventory().free_objects, full.free_objects);
    for (const HANDLE event : events) {
        EXPECT_TRUE(vllCloseHandle(event));
    }
    takeErrors();
}

}  // namespace
