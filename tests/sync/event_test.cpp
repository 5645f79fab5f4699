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

// Checks an event's state through its descriptor and by two waits.
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
        EXPECT_EQ(fcntl(vllGetEventFd(event), F_GETFL) & O_NONBLOCK, O_NONBLOCK);
        epoll_event ready;
        EXPECT_EQ(epoll_wait(vlliGetObjectAddress(event)->efd, &ready, 1, 0), 0) << "an empty set of its own";
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
    EXPECT_THAT(vllCreateEvent(1, 1, ""), FailsWith(0));
    EXPECT_EQ(takeErrors(), Errors{"VLL: CreateEvent: Named events not supported\n"});
    EXPECT_THAT(vllOpenEvent("x"), FailsWith(0));
    EXPECT_EQ(takeErrors(), Errors{"VLL: OpenEvent: Named events not supported\n"});
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
    const std::string fd = std::to_string(nextFd());
    const auto created = [](const std::string &new_fd, int error) {
        return "VLL: CreateEvent: ERROR: event->fd = " + new_fd +
               format(", event->efd =-1, errno = %d[%s]\n", error, strerror(error));
    };
    const auto duplicated = [](const std::string &new_fd) {
        return "VLLI: DuplicateEvent: new->fd = " + new_fd + ", new->efd\n";
    };
    for (const Failure &failure : {Failure{"eventfd", 1, EMFILE, {created("-1", EMFILE)}},
                                   Failure{"fcntl64", 1, EINVAL, {created(fd, EINVAL)}},
                                   Failure{"epoll_create", 1, ENOMEM, {created(fd, ENOMEM)}}}) {
        expectFailure(
            failure, [] { return makeAutoEvent(TRUE); }, 0);
    }
    for (const Failure &failure :
         {Failure{"dup", 1, EMFILE, {duplicated("-1")}}, Failure{"dup", 2, EMFILE, {duplicated(fd)}}}) {
        expectFailure(
            failure, [&] { return vllDuplicateHandle(event); }, 0);
    }
}

TEST_F(EventTest, a_full_counter_refuses_the_signal_and_stays_signalled) {
    const Owned event(makeManualEvent());
    const uint64_t full = 0xFFFFFFFFFFFFFFFE;
    ASSERT_EQ(write(vllGetEventFd(event), &full, sizeof full), 8);
    EXPECT_THAT(vllSetEvent(event), FailsWith(EAGAIN));
    expectSignalled(event, true, true);
    EXPECT_TRUE(vllResetEvent(event));
    expectSignalled(event, false, true);
}

// An event holds two of the process's 256 descriptors. Plain ones are used up as well, since the table would end
// first.
TEST_F(EventTest, running_out_of_descriptors_and_recovering) {
    std::vector<Fd> plain;
    for (int i = 0; i < 100; ++i) {
        plain.emplace_back(dup(0));
    }
    std::vector<HANDLE> events;
    for (HANDLE event; (event = makeAutoEvent()) != 0; events.push_back(event)) {
        ASSERT_LT(events.size(), kObjectCount);
    }
    EXPECT_EQ(errno, EMFILE);
    // Not by a matcher: UBSan checks its virtual calls by way of a pipe, which cannot be had here.
    errno = 0;
    EXPECT_EQ(vllDuplicateHandle(events[0]), 0U);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_FALSE(isSignalled(events[0])) << "polling needs no descriptor";
    EXPECT_TRUE(vllCloseHandle(events.back()));
    events.back() = makeAutoEvent(TRUE);
    EXPECT_TRUE(isSignalled(events.back()));
    for (const HANDLE event : events) {
        EXPECT_TRUE(vllCloseHandle(event));
    }
    takeErrors();
}

}  // namespace
