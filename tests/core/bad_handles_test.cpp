// Handles that are not what an operation takes, run through every exported operation that takes a handle. A refused
// handle gives the documented result, last error and number of log lines, and changes no object.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include "core/objmem.h"
#include "support/fixture.h"
#include "support/objects.h"
#include "support/syslog_capture.h"

namespace {

// What an operation does with a handle, as a letter of the table.
struct Outcome {
    char letter;
    int error;     // 0: the last error is unchanged
    size_t lines;  // at LOG_ERR, without a stack dump
};
constexpr Outcome kOutcomes[] = {
    {'q', EINVAL, 0}, {'l', EINVAL, 1}, {'L', EINVAL, 2}, {'s', 0, 0},
    {'n', 0, 1},      {'b', EBADF, 0},  {'t', ENOTTY, 0},
};
DWORD number;
FILETIME file_time;
FileInfoRecord file_information;
WSASockData selection;
WSANETWORKEVENTS network_events;
int datagram_socket = -1;

struct Operation {
    int64_t (*call)(HANDLE handle);
    int64_t failure;
    const char *outcomes;  // a letter for each kind of handle; a dot where the handle is accepted
};

#define CALL(...) [](HANDLE h) -> int64_t { return static_cast<int64_t>(__VA_ARGS__); }
#define CALL_FOR_POINTER(...) CALL(reinterpret_cast<intptr_t>(__VA_ARGS__))

// clang-format off
const Operation kOperations[] = {
    {CALL(vllCloseHandle(h)),                                          FALSE,       ".bllqqq..."},
    {CALL(vllDuplicateHandle(h)),                                      0,           "lllllqq..."},
    {CALL(vllSetEvent(h)),                                             FALSE,       "lllllqq.ss"},
    {CALL(vllResetEvent(h)),                                           FALSE,       "lllllqq.ss"},
    {CALL(vllGetEventFd(h)),                                           -1,          "sssllqs.ss"},
    {CALL(vllSetWaitableTimer(h, 1)),                                  FALSE,       "LLLLLlllnl"},
    {CALL(vllCancelWaitableTimer(h)),                                  FALSE,       "LLLLLlllnl"},
    {CALL(vllGetConsoleMode(h, &number)),                              FALSE,       "lllllqqtbt"},
    {CALL(vllSetConsoleMode(h, 0)),                                    FALSE,       "lllllqqtbt"},
    {CALL(vllFlushConsoleInputBuffer(h)),                              FALSE,       "lllllqqtbt"},
    {CALL(vllGetNumberOfConsoleInputEvents(h, &number)),               FALSE,       "lllllqqtb."},
    {CALL(vllReleaseMutex(h)),                                         FALSE,       "qqqqqqqq.q"},
    {CALL(vllReleaseSemaphore(h)),                                     FALSE,       "lllllqqqqq"},
    {CALL(vllResumeThread(h)),                                         0,           "lllllqqqqq"},
    {CALL(vllTerminateThread(h, 1)),                                   FALSE,       "lllllqqqqq"},
    {CALL(vllWaitForSingleObject(h, INFINITE)),                        WAIT_FAILED, "LLLLLll..l"},
    {CALL(vllWaitForMultipleObjects(1, &h, INFINITE)),                 WAIT_FAILED, "lllllqq.qq"},
    {CALL(vllMsgWaitForMultipleObjectsEx(1, &h, INFINITE)),            WAIT_FAILED, "lllllqq.qq"},
    {CALL_FOR_POINTER(vllMapViewOfFile(h, PROT_READ, 0, 1)),           0,           "lllllqqqq."},
    {CALL(vllWSAEventSelect(datagram_socket, h, FD_READ, &selection)), -1,          "lllLLll.ll"},
    {CALL(vllWSAEnumNetworkEvents(&selection, h, &network_events)),    -1,          "...llq.q.."},
    // These take descriptors, and every handle of an object is a descriptor that is not open.
    {CALL(vllCreateFileMapping(h, 0, 0, nullptr)),                     0,           ".b.bbbbbbb"},
    {CALL(vllReadFile(h, &number, 1, nullptr, nullptr)),               FALSE,       ".bbbbbbbbb"},
    {CALL(vllWriteFile(h, &number, 1, nullptr, nullptr)),              FALSE,       ".bbbbbbbbb"},
    {CALL(vllCancelIo(h)),                                             FALSE,       "bbbbbbbbbb"},
    {CALL(vllSetFilePointer(h, 0, 0)),                                 0xFFFFFFFF,  ".bbbbbbbbb"},
    {CALL(vllFlushFileBuffers(h)),                                     FALSE,       ".bbbbbbbbb"},
    {CALL(vllGetFileSize(h)),                                          0xFFFFFFFF,  ".bbbbbbbbb"},
    {CALL_FOR_POINTER(vllGetFileInformationByHandle(h, &file_information)), 0,      ".bbbbbbbbb"},
    {CALL(vllGetFileTime(h, &file_time, nullptr, nullptr)),            FALSE,       ".bbbbbbbbb"},
    {CALL(vllSetFileTime(h, nullptr, &file_time, &file_time)),         FALSE,       ".bbbbbbbbb"},
};
// clang-format on

void expectOutcome(const Operation &operation, HANDLE handle, char letter) {
    for (const Outcome &outcome : kOutcomes) {
        if (outcome.letter == letter) {
            SCOPED_TRACE(format("operation %zd, handle 0x%X", &operation - kOperations, handle));
            errno = 0;
            EXPECT_EQ(operation.call(handle), operation.failure);
            EXPECT_EQ(errno, outcome.error);
            EXPECT_EQ(takeErrors().size(), outcome.lines);
        }
    }
}

class BadHandlesTest : public LibraryTest {};

TEST_F(BadHandlesTest, every_operation_refuses_them) {
    const Owned event(makeManualEvent()), mutex(vllCreateMutex(FALSE, nullptr));
    const Owned mapping(vllCreateFileMapping(INVALID_HANDLE_VALUE, O_RDWR, 1, nullptr));
    const HANDLE closed = makeAutoEvent(), index = event & kIndexMask;
    ASSERT_TRUE(vllCloseHandle(closed));
    const std::vector<HANDLE> kinds[] = {
        {0, 1},                                                // open descriptors
        {9999},                                                // a descriptor that is not open
        {0x50000, 0x300000, 0x1300000, INVALID_HANDLE_VALUE},  // type codes that do not exist
        {0x10080, 0x1FFFF},                                    // indices that do not exist
        {closed},
        {OBJ_EVENT | (mutex & kIndexMask)},  // a mutex under an event's code
        {OBJ_WAITABLE_TIMER | index, OBJ_CONSOLE | index, OBJ_THREAD | index, OBJ_MUTEX | index,
         OBJ_SEMAPHORE | index, OBJ_SHMEM | index, OBJ_NAMED_MUTEX | index, OBJ_NAMED_SEMAPHORE | index},
        {event},
        {mutex},
        {mapping}};
    datagram_socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    for (const Operation &operation : kOperations) {
        for (size_t kind = 0; kind < std::size(kinds); ++kind) {
            for (const HANDLE handle : kinds[kind]) {
                expectOutcome(operation, handle, operation.outcomes[kind]);
            }
        }
    }
    for (const HANDLE handle : {HANDLE{event}, HANDLE{mutex}, HANDLE{mapping}}) {
        EXPECT_EQ(references(handle), 1);
    }
    EXPECT_FALSE(isSignalled(event));
    close(datagram_socket);
}

}  // namespace
