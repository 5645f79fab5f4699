// Files and background transfers beside the system calls that they are made of.

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <array>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "base/descriptor.h"
#include "files/filemanage.h"
#include "pair.h"
#include "vwincompat.h"

namespace {

constexpr size_t kBlock = 4096;
constexpr off_t kFileSize = 64 << 10;  // stays in the cache of a processor, whatever else runs
constexpr off_t kCopySize = 64 << 20;

// Ends the run when an operation fails: the time of a failure means nothing.
void require(bool condition) {
    if (!condition) {
        abort();
    }
}

// A file in memory that is read or written from its start to its end again and again.
class File {
  public:
    explicit File(off_t size) : fd_(memfd_create("bench", MFD_CLOEXEC)) {
        const std::vector<char> block(1 << 20, 'x');
        for (off_t done = 0; done < size; done += static_cast<off_t>(block.size())) {
            require(write(fd_.get(), block.data(), block.size()) == static_cast<ssize_t>(block.size()));
        }
        rewind();
    }
    int fd() const { return fd_.get(); }
    HANDLE handle() const { return static_cast<HANDLE>(fd_.get()); }
    std::string path() const { return "/proc/self/fd/" + std::to_string(fd_.get()); }
    void advance() {
        if (++blocks_ == kFileSize / static_cast<off_t>(kBlock)) {
            rewind();
        }
    }

  private:
    void rewind() {
        blocks_ = 0;
        require(lseek(fd_.get(), 0, SEEK_SET) == 0);
    }
    Fd fd_;
    off_t blocks_ = 0;
};

template <typename Operation>
void overFile(benchmark::State &state, const Operation &operation) {
    // One file and one buffer for both sides: where their pages lie changes a transfer by more than a call costs.
    static File file(kFileSize);
    alignas(kBlock) static std::array<char, kBlock> buffer = {};
    for (auto _ : state) {
        require(operation(file, buffer.data()));
        file.advance();
    }
}

void readOurs(benchmark::State &state) {
    overFile(state, [](const File &file, char *buffer) {
        DWORD count;
        return vllReadFile(file.handle(), buffer, kBlock, &count, nullptr) && count == kBlock;
    });
}

void readRaw(benchmark::State &state) {
    overFile(state, [](const File &file, char *buffer) { return read(file.fd(), buffer, kBlock) == kBlock; });
}

void writeOurs(benchmark::State &state) {
    overFile(state, [](const File &file, const char *buffer) {
        DWORD count;
        return vllWriteFile(file.handle(), buffer, kBlock, &count, nullptr) && count == kBlock;
    });
}

void writeRaw(benchmark::State &state) {
    overFile(state,
             [](const File &file, const char *buffer) { return write(file.fd(), buffer, kBlock) == kBlock; });
}

std::string targetPath() {
    return "/dev/shm/vll_file_bench_" + std::to_string(getpid());
}

void copyOurs(benchmark::State &state) {
    const File source(kCopySize);
    const std::string from = source.path();
    const std::string to = targetPath();
    for (auto _ : state) {
        require(vllCopyFile(from.c_str(), to.c_str(), TRUE));
        require(unlink(to.c_str()) == 0);
    }
}

void copyRaw(benchmark::State &state) {
    const File source(kCopySize);
    const std::string from_path = source.path();
    const std::string to_path = targetPath();
    std::array<char, kBlock> buffer;
    for (auto _ : state) {
        Fd from(open(from_path.c_str(), O_RDONLY | O_CLOEXEC));
        Fd to(open(to_path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        ssize_t bytes;
        while ((bytes = read(from.get(), buffer.data(), kBlock)) > 0) {
            require(write(to.get(), buffer.data(), static_cast<size_t>(bytes)) == bytes);
        }
        require(bytes == 0 && fsync(to.get()) == 0);
        from.reset();
        to.reset();
        require(unlink(to_path.c_str()) == 0);
    }
}

// A path in the right case: only its components are looked up.
constexpr const char *kWindowsPath = "\\usr\\include\\linux\\fs.h";

void convertOurs(benchmark::State &state) {
    std::array<char, 64> out;
    for (auto _ : state) {
        require(vlliConvertToLinuxPath(out.data(), kWindowsPath) == 0);
    }
}

void convertRaw(benchmark::State &state) {
    struct stat status;
    for (auto _ : state) {
        for (const char *path : {"/usr", "/usr/include", "/usr/include/linux", "/usr/include/linux/fs.h"}) {
            require(stat(path, &status) == 0);
        }
    }
}

struct Pipe {
    std::array<int, 2> fds;
    Pipe() { require(pipe2(fds.data(), O_CLOEXEC) == 0); }
    ~Pipe() {
        close(fds[0]);
        close(fds[1]);
    }
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;
    void send() const { require(write(fds[1], "x", 1) == 1); }
};

void roundTripOurs(benchmark::State &state) {
    const HANDLE service = vllCreateThread(0, vlliAsyncIo, nullptr, nullptr, 0);
    while (__atomic_load_n(&epoll_fd, __ATOMIC_ACQUIRE) == -1) {
        usleep(1000);
    }
    const Pipe pipe;
    OverlappedRecord record = {};
    char byte;
    for (auto _ : state) {
        require(vllReadFile(static_cast<HANDLE>(pipe.fds[0]), &byte, 1, nullptr, &record));
        pipe.send();
        DWORD count;
        require(vllGetOverlappedResult(&record, &count, TRUE) && count == 1);
        vllResetEvent(record.event);
    }
    vllCloseHandle(record.event);
    vllTerminateThread(service, 0);
    vllWaitForSingleObject(service, INFINITE);
    vllCloseHandle(service);
}

void roundTripRaw(benchmark::State &state) {
    const Fd set(epoll_create1(EPOLL_CLOEXEC));
    const Fd done(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    const Fd end(eventfd(0, EFD_CLOEXEC));
    const Pipe pipe;
    char byte;
    uint64_t one = 1;
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = end.get();
    require(epoll_ctl(set.get(), EPOLL_CTL_ADD, end.get(), &event) == 0);
    std::thread service([&] {
        epoll_event ready;
        while (epoll_wait(set.get(), &ready, 1, -1) == 1 && ready.data.fd != end.get()) {
            require(read(ready.data.fd, &byte, 1) == 1);
            require(epoll_ctl(set.get(), EPOLL_CTL_DEL, ready.data.fd, nullptr) == 0);
            require(write(done.get(), &one, sizeof one) == sizeof one);
        }
    });
    event.events = EPOLLIN | EPOLLONESHOT;
    event.data.fd = pipe.fds[0];
    for (auto _ : state) {
        require(epoll_ctl(set.get(), EPOLL_CTL_ADD, pipe.fds[0], &event) == 0);
        pipe.send();
        pollfd signalled = {done.get(), POLLIN, 0};
        uint64_t counter;
        require(poll(&signalled, 1, -1) == 1);
        require(read(done.get(), &counter, sizeof counter) == sizeof counter);
    }
    require(write(end.get(), &one, sizeof one) == sizeof one);
    service.join();
}

}  // namespace

void bench::registerPairs() {
    addPair({"read 4 KiB of a file", 1.05, readOurs, readRaw, Clock::cpu});
    addPair({"write 4 KiB of a file", 1.05, writeOurs, writeRaw, Clock::cpu});
    addPair({"copy a file of 64 MiB", 1.1, copyOurs, copyRaw, Clock::cpu, 1, 0, 9});
    addPair({"convert a right Windows path", 1.2, convertOurs, convertRaw, Clock::cpu});
    addPair({"overlapped round trip over a pipe", 1.5, roundTripOurs, roundTripRaw});
}
