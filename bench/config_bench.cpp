// Profile files of 1,000 lines beside the calls that read, or copy, the same bytes. The files lie on a memory file
// system; sync(2) is left out, since it waits for all disks of the machine.

#include <fcntl.h>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "base/descriptor.h"
#include "pair.h"
#include "vwincompat.h"

extern "C" void __wrap_sync();
void __wrap_sync() {}

namespace {

constexpr size_t kBufferSize = 4096;

// A profile of 1,000 lines in a directory of its own; the last line is "last=value".
class Profile {
  public:
    Profile() {
        mkdtemp(directory_);
        file_ = std::string(directory_) + "/profile";
        std::string content;
        for (int line = 0; line < 999; ++line) {
            if (line % 100 == 0) {
                content += "[section " + std::to_string(line) + "]\n";
            } else {
                content += "key_" + std::to_string(line) + " = some value ; and a comment\n";
            }
        }
        content += "last=value\n";
        const Fd fd(open(file_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
        good_ = write(fd.get(), content.data(), content.size()) == static_cast<ssize_t>(content.size());
    }
    ~Profile() {
        unlink(file_.c_str());
        unlink(copy().c_str());
        rmdir(directory_);
    }
    Profile(const Profile &) = delete;
    Profile &operator=(const Profile &) = delete;

    const char *file() const { return file_.c_str(); }
    std::string copy() const { return file_ + "copy"; }
    bool good() const { return good_; }

  private:
    char directory_[32] = "/dev/shm/vll-bench-XXXXXX";
    std::string file_;
    bool good_ = false;
};

const char kLastSection[] = "section 900";

void readLastValue(benchmark::State &state) {
    const Profile profile;
    char value[64];
    bool good = profile.good();
    for (auto _ : state) {
        DWORD size = sizeof value;
        good = vllReadConfigValue(profile.file(), kLastSection, "last", value, &size) && good;
    }
    if (!good) {
        state.SkipWithError("the value was not read");
    }
}

void readWithFgets(benchmark::State &state) {
    const Profile profile;
    char line[kBufferSize];
    for (auto _ : state) {
        const std::unique_ptr<FILE, int (*)(FILE *)> file(fopen(profile.file(), "re"), fclose);
        while (fgets(line, sizeof line, file.get()) != nullptr) {
            benchmark::DoNotOptimize(line);
        }
    }
}

template <typename Edit>
void editProfile(benchmark::State &state, Edit edit) {
    const Profile profile;
    bool good = profile.good();
    for (auto _ : state) {
        good = edit(profile.file()) && good;
    }
    if (!good) {
        state.SkipWithError("the edit failed");
    }
}

void setLastValue(benchmark::State &state) {
    editProfile(state,
                [](const char *file) { return vllAddConfigValue(file, kLastSection, "last", "new value"); });
}

void writeProfileString(benchmark::State &state) {
    editProfile(state, [](const char *file) {
        return vllWritePrivateProfileString("section 0", "last", "new", file);
    });
}

bool copyPlainly(const char *from, const char *to) {
    const Fd source(open(from, O_RDONLY | O_CLOEXEC));
    const Fd target(open(to, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    char buffer[kBufferSize];
    ssize_t count;
    while ((count = read(source.get(), buffer, sizeof buffer)) > 0) {
        if (write(target.get(), buffer, static_cast<size_t>(count)) != count) {
            return false;
        }
    }
    return count == 0;
}

void copyFile(benchmark::State &state) {
    const Profile profile;
    const std::string copy = profile.copy();
    bool good = profile.good();
    for (auto _ : state) {
        good = copyPlainly(profile.file(), copy.c_str()) && good;
    }
    if (!good) {
        state.SkipWithError("the copy failed");
    }
}

}  // namespace

void bench::registerPairs() {
    addPair({"read the last value of 1,000 lines / fgets", 1.5, readLastValue, readWithFgets, Clock::cpu});
    addPair({"set the last value of 1,000 lines / copy", 2.0, setLastValue, copyFile, Clock::cpu});
    addPair({"profile string into 1,000 lines / copy", 2.0, writeProfileString, copyFile, Clock::cpu});
}
