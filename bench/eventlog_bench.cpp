// Counting and reading a log of 64 MiB, in a /var/log of the benchmark's own.
#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstdlib>
#include <cstring>
#include <string>

#include "eventlog/eventlog_map.h"
#include "pair.h"
#include "vwincompat.h"

namespace {

constexpr size_t kMiB = 1 << 20;
constexpr size_t kLogSize = 64 * kMiB;
constexpr char kLog[] = "/var/log/vservices";

// Every second line is a record.
void writeLog(size_t size) {
    static const std::string lines =
        "Nov 16 16:21:16 unit1 user.info gateway: call set up between line 4 and line 11\n"
        "Nov 16 16:21:16 unit1 daemon.info ntpd[417]: adjusting the clock by 0.000417 s\n";
    std::string block;
    while (block.size() < kMiB) {
        block += lines;
    }
    const int fd = open(kLog, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    for (size_t done = 0; done < size; done += block.size()) {
        if (write(fd, block.data(), block.size()) != static_cast<ssize_t>(block.size())) {
            abort();
        }
    }
    close(fd);
    const timespec rest[2] = {{1000000, 0}, {1000000, 0}};
    utimensat(AT_FDCWD, kLog, rest, 0);
}

// Writes a log into the private namespace of this pair's process, which is entered once. A log of the right size is not
// written again.
void privateLog(size_t size) {
    static bool entered = false;
    static size_t written = 0;
    if (written == size) {
        return;
    }
    written = size;
    if (!entered) {
        const bool root = geteuid() == 0;
        if (unshare(root ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("log", "/var/log", "tmpfs", 0, "mode=0755") != 0) {
            abort();
        }
        entered = true;
    }
    writeLog(size);
}

// The log, opened for the rest of the process.
void openLog() {
    static void *log = nullptr;
    if (log == nullptr) {
        privateLog(kLogSize);
        log = vllOpenEventLog(nullptr, nullptr);
    }
    if (log == nullptr) {
        abort();
    }
}

void countOurs(benchmark::State &state) {
    openLog();
    for (auto _ : state) {
        vlliGetSyslogRecordsNumber();
        benchmark::DoNotOptimize(nSyslogRecordsTotal);
    }
}

void countRaw(benchmark::State &state) {
    openLog();
    for (auto _ : state) {
        const char *at = SyslogMappings[0].pData;
        const char *const end = at + SyslogMappings[0].nSize;
        size_t lines = 0;
        while (const void *newline = memchr(at, '\n', static_cast<size_t>(end - at))) {
            ++lines;
            at = static_cast<const char *>(newline) + 1;
        }
        benchmark::DoNotOptimize(lines);
    }
}

// One pass over the log.
void readThrough(benchmark::State &state, DWORD direction, size_t size) {
    privateLog(size);
    static char buffer[65536];
    for (auto _ : state) {
        void *const log = vllOpenEventLog(nullptr, nullptr);
        DWORD got;
        DWORD needed;
        while (vllReadEventLog(log, EVENTLOG_SEQUENTIAL_READ | direction, 0, buffer, sizeof buffer, &got,
                               &needed)) {
            benchmark::DoNotOptimize(got);
        }
        vllCloseEventLog(log);
    }
}

void forwardsOurs(benchmark::State &state) {
    readThrough(state, EVENTLOG_FORWARDS_READ, kLogSize);
}

void backwardsOurs(benchmark::State &state) {
    readThrough(state, EVENTLOG_BACKWARDS_READ, kLogSize);
}

void forwardsHalf(benchmark::State &state) {
    readThrough(state, EVENTLOG_FORWARDS_READ, kLogSize / 2);
}

void backwardsHalf(benchmark::State &state) {
    readThrough(state, EVENTLOG_BACKWARDS_READ, kLogSize / 2);
}

// Takes as long as reading the log would at 100 MB a second.
void hundredMegabytesASecond(benchmark::State &state) {
    constexpr int64_t kNanoseconds = static_cast<int64_t>(kLogSize) * 10;
    for (auto _ : state) {
        timespec now;
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        const int64_t end = now.tv_sec * int64_t{1000000000} + now.tv_nsec + kNanoseconds;
        do {
            clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        } while (now.tv_sec * int64_t{1000000000} + now.tv_nsec < end);
    }
}

}  // namespace

void bench::registerPairs() {
    constexpr int kFew = 5;
    addPair(
        {"count the lines of a 64 MiB log / memchr loop", 1.25, countOurs, countRaw, Clock::cpu, 1, 0, 9});
    addPair({"read 64 MiB of log forwards / at 100 MB/s", 1.0, forwardsOurs, hundredMegabytesASecond,
             Clock::cpu, 1, 0, kFew});
    addPair({"read 64 MiB of log backwards / at 100 MB/s", 1.0, backwardsOurs, hundredMegabytesASecond,
             Clock::cpu, 1, 0, kFew});
    addPair(
        {"read 64 MiB of log forwards / 32 MiB", 2.2, forwardsOurs, forwardsHalf, Clock::cpu, 1, 0, kFew});
    addPair(
        {"read 64 MiB of log backwards / 32 MiB", 2.2, backwardsOurs, backwardsHalf, Clock::cpu, 1, 0, kFew});
}
