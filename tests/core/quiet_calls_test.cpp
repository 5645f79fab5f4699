// Calls that succeed, each made while a cancellation of the thread is pending: an operation that is not documented as a
// cancellation point returns all the same, and leaves the last error alone unless its contract says otherwise.

#include <fcntl.h>
#include <pthread.h>
#include <pty.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/descriptor.h"
#include "support/files.h"
#include "support/fixture.h"
#include "support/objects.h"
#include "support/private_machine.h"
#include "support/syslog_capture.h"

namespace {

constexpr int kUntouched = 77;
constexpr char kIni[] = "a.ini";

HANDLE event, timer, mutex, semaphore, mapping, file, thread;
void *view, *event_log;
SearchRecord *search;
SharedVar *variable;
FindDataRecord found;
FileInfoRecord information;
OverlappedRecord watched;
WSASockData selection;
WSANETWORKEVENTS network_events;
PROCESS_INFORMATION process;
SYSTEMTIME system_time;
FILETIME file_time;
HMODULE module;
DWORD number;
uint32_t serial_events;
Fd sockets[2], terminals[2];
char text[4096];

DWORD setNumber(DWORD value) {
    number = value;
    return number;
}

struct Step {
    const char *operation;
    bool (*succeeds)();
    int error = kUntouched;  // the last error after it
};

#define STEP(...)                                                     \
    {                                                                 \
#__VA_ARGS__, [] { return static_cast<bool>((__VA_ARGS__)); } \
    }
#define STEP_SETS(error, ...)                                                \
    {                                                                        \
#__VA_ARGS__, [] { return static_cast<bool>((__VA_ARGS__)); }, error \
    }

// In this order: later steps use what earlier ones made.
const Step kSteps[] = {
    // handles, events, timers, mutexes, semaphores, threads
    STEP(event = vllCreateEvent(TRUE, FALSE, nullptr)),
    STEP(vllSetEvent(event)),
    STEP(vllResetEvent(event)),
    STEP(vllResetEvent(event)),
    STEP(vllCloseHandle(vllDuplicateHandle(event))),
    STEP(timer = vllCreateWaitableTimer(nullptr)),
    STEP(vllSetWaitableTimer(timer, -10000000)),
    STEP(vllCancelWaitableTimer(timer)),
    STEP(vllCloseHandle(timer)),
    STEP(mutex = vllCreateMutex(TRUE, nullptr)),
    STEP(vllReleaseMutex(mutex)),
    STEP(vllCloseHandle(mutex)),
    STEP_SETS(0, mutex = vllCreateMutex(TRUE, "quiet-mutex")),
    STEP_SETS(EEXIST, vllCloseHandle(vllOpenMutex("quiet-mutex"))),
    STEP(vllReleaseMutex(mutex)),
    STEP(vllCloseHandle(mutex)),
    STEP_SETS(0, semaphore = vllCreateSemaphore(0, "quiet-semaphore")),
    STEP(vllReleaseSemaphore(semaphore)),
    STEP(vllCloseHandle(semaphore)),
    STEP(thread = vllCreateThread(
             0, [](LPVOID) -> uint32_t { return 0; }, nullptr, nullptr, CREATE_SUSPENDED)),
    STEP(vllResumeThread(thread) == 1),
    STEP(vllCreateProcess("/bin/true", nullptr, nullptr, &process)),
    // mappings, shared variables and descriptors
    STEP_SETS(0, mapping = vllCreateFileMapping(INVALID_HANDLE_VALUE, O_RDWR, 100, "quiet-mapping")),
    STEP(view = vllMapViewOfFile(mapping, PROT_READ, 0, 100)),
    STEP(vllUnmapViewOfFile(view)),
    STEP(vllCloseHandle(mapping)),
    STEP(variable = vllSharedVarInit("/quiet-variable", 4, SHVAR_OPEN)),
    STEP(vllSharedVarDeallocate(variable, SHVAR_OPEN)),
    STEP(vllSetSharedFileDescriptor(0, "quiet-descriptor")),
    STEP(vllDeallocateSharedFdList() == 0),
    // files
    STEP(vllSetFilePointer(file, 0, 0) == 0),
    STEP(vllGetFileSize(file) == 2),
    STEP(vllGetFileInformationByHandle(file, &information)),
    STEP(vllGetFileTime(file, &file_time, nullptr, nullptr)),
    STEP(vllSetFileTime(file, nullptr, &file_time, &file_time)),
    STEP(vllGetFileAttributes("file") != 0),
    STEP(vllCreateDirectory("directory")),
    STEP(search = vllFindFirstFile("*", &found)),
    STEP(vllFindNextFile(search, &found)),
    STEP(vllFindClose(search)),
    STEP(vllLinkOrCopyFile("file", "link", TRUE)),
    STEP(vllMoveFile("link", "moved")),
    STEP(vllMoveFileEx("file", "moved", MOVE_REPLACE_EXISTING)),
    STEP(vllDeleteFile("moved")),
    STEP(vllSetCurrentDirectory("directory")),
    STEP(vllGetCurrentDirectory(sizeof text, text)),
    STEP(vllGetFullPathName("a", sizeof text, text, nullptr)),
    STEP(vllSetCurrentDirectory("..")),
    STEP(vllRemoveDirectory("directory")),
    STEP(vllGetDiskFreeSpaceEx("/", nullptr, nullptr, nullptr)),
    STEP(vllCryptGenRandom(16, reinterpret_cast<BYTE *>(text))),
    // profiles
    STEP(vllAddConfigSection(kIni, "s")),
    STEP(vllAddConfigValue(kIni, "s", "k", "1")),
    STEP(vllWritePrivateProfileString("s", "m", "2", kIni)),
    STEP_SETS(0, vllGetPrivateProfileInt("s", "k", 0, kIni) == 1),
    STEP_SETS(0, vllGetPrivateProfileString("s", "k", "", text, sizeof text, kIni) == 1),
    STEP(vllGetPrivateProfileSection("s", text, sizeof text, kIni)),
    STEP_SETS(0, vllReadConfigValue(kIni, "s", "k", text, &(setNumber(sizeof text), number))),
    STEP(vllReadAllSections("", text, sizeof text, kIni)),
    STEP(vllReadAllValues("s", "", text, sizeof text, kIni)),
    STEP_SETS(ENOENT, vllRegSaveKey(0, "saved", nullptr) == ENOENT),
    STEP(vllDeleteConfigValue(kIni, "s", "k")),
    STEP(vllDeleteConfigSection(kIni, "s")),
    // the event log, time
    STEP(event_log = vllOpenEventLog(nullptr, nullptr)),
    STEP(vllGetNumberOfEventLogRecords(event_log, &number)),
    STEP(vllGetOldestEventLogRecord(event_log, &number)),
    STEP(vllReadEventLog(event_log, EVENTLOG_SEQUENTIAL_READ | EVENTLOG_FORWARDS_READ, 0, text, sizeof text,
                         &number, &number)),
    STEP(vllClearEventLog(event_log, nullptr)),
    STEP(vllCloseEventLog(event_log)),
    STEP(vllGetSystemTime(&system_time)),
    STEP(vllGetLocalTime(&system_time)),
    STEP(vllSystemTimeToFileTime(&system_time, &file_time)),
    STEP(vllFileTimeToSystemTime(&file_time, &system_time)),
    STEP(vllFileTimeToLocalFileTime(&file_time, &file_time)),
    STEP(vllSystemTimeToTzSpecificLocalTime(&system_time, &system_time)),
    STEP(vllGetSystemTimeAsFileTime(&file_time)),
    STEP(vll_strdate(text)),
    STEP(vll_strtime(text)),
    // sockets and serial ports
    STEP(vllWSAEventSelect(sockets[0].get(), event, FD_READ, &selection) == 0),
    STEP(vllWSAEnumNetworkEvents(&selection, event, &network_events) == 0),
    STEP(vllWSAEventSelect(sockets[0].get(), event, 0, &selection) == 0),
    STEP(vllPurgeComm(terminals[0].get(), 1)),
    STEP(vllSetCommMask(terminals[0].get(), EV_RXCHAR, &watched)),
    STEP_SETS(EINPROGRESS, !vllWaitCommEvent(terminals[0].get(), &serial_events, &watched)),
    STEP(vllSetCommMask(terminals[0].get(), 0, &watched)),
    // the system
    STEP(module = vllLoadLibrary("libm.so.6")),
    STEP(vllGetProcAddress(module, "cos")),
    STEP(vllGetModuleHandle("libm.so.6")),
    STEP(vllGetModuleFileName(reinterpret_cast<LPCVOID>(vllCloseHandle), text)),
    STEP(vllGetModuleStartingAddress("libm.so.6")),
    STEP(vllFreeLibrary(module)),
    STEP(vllGetLocaleInfo(VLL_LOCALE_DATE_FORMAT, text, sizeof text)),
    STEP(vllGetDateFormat(text, sizeof text, "%Y", nullptr)),
    STEP(vllGetComputerName(text, &(setNumber(sizeof text), number))),
    STEP(vllGetUserName(text, &(setNumber(sizeof text), number))),
    STEP(vllExpandEnvironmnentStrings("$HOME", text, sizeof text)),
    STEP(!vllIsBadReadPtr(text, sizeof text)),
    STEP(vllIsBadWritePtr(const_cast<char *>("constant"), 1)),
    STEP(vllIsBadReadPtr(nullptr, 1)),
    STEP(vllGetTickCount() != 0),
};

int errors_after[std::size(kSteps)];
bool succeeded[std::size(kSteps)];
size_t done;

void *runSteps(void *) {
    pthread_cancel(pthread_self());
    for (done = 0; done < std::size(kSteps); ++done) {
        errno = kUntouched;
        succeeded[done] = kSteps[done].succeeds();
        errors_after[done] = errno;
    }
    return nullptr;
}

class QuietCallsTest : public LibraryTest {};

TEST_F(QuietCallsTest, no_cancellation_point_and_no_stray_last_error) {
    coverDirectory("/var/log");
    writeFile("/var/log/vservices", "Nov 16 16:21:16 unit1 user.info gateway: text\n");
    const std::string directory = freshDirectory();
    ASSERT_EQ(chdir(directory.c_str()), 0);
    writeFile("file", "ab");
    writeFile(kIni, "[first]\nk=v\n");
    Fd opened(open("file", O_RDWR | O_CLOEXEC));
    file = static_cast<HANDLE>(opened.get());
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    sockets[0].reset(ends[0]);
    sockets[1].reset(ends[1]);
    ASSERT_EQ(openpty(&ends[1], &ends[0], nullptr, nullptr, nullptr), 0);
    terminals[0].reset(ends[0]);
    terminals[1].reset(ends[1]);
    watched.event = vllCreateEvent(TRUE, FALSE, nullptr);
    SharedVar *const created = vllSharedVarInit("/quiet-variable", 4, SHVAR_CREATE);
    pthread_t caller;
    ASSERT_EQ(pthread_create(&caller, nullptr, runSteps, nullptr), 0);
    ASSERT_EQ(pthread_join(caller, nullptr), 0);
    EXPECT_EQ(done, std::size(kSteps)) << "cancelled in " << kSteps[done].operation;
    for (size_t i = 0; i < done; ++i) {
        EXPECT_TRUE(succeeded[i]) << kSteps[i].operation << ": " << strerror(errors_after[i]);
        EXPECT_EQ(errors_after[i], kSteps[i].error) << kSteps[i].operation;
    }
    EXPECT_TRUE(vllSharedVarDeallocate(created, SHVAR_CREATE));
    finishThread(thread);
    finishThread(process.hProcess);
    for (const HANDLE handle : {event, watched.event}) {
        EXPECT_TRUE(vllCloseHandle(handle));
    }
    for (Fd *fd : {&sockets[0], &sockets[1], &terminals[0], &terminals[1]}) {
        fd->reset();
    }
    EXPECT_TRUE(takeErrors().empty());
}

}  // namespace
