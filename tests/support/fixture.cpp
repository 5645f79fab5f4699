#include "support/fixture.h"

#include <dirent.h>
#include <time.h>
#include <unistd.h>
#include <algorithm>
#include <climits>
#include <cstdio>
#include <fstream>
#include <memory>
#include <ostream>

#include "core/objmem.h"
#include "support/syslog_capture.h"

namespace {

std::vector<std::string> listDirectory(const char *path) {
    std::vector<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR *)> directory(opendir(path), closedir);
    while (directory != nullptr) {
        const dirent *entry = readdir(directory.get());
        if (entry == nullptr) {
            break;
        }
        if (entry->d_name[0] != '.') {
            names.push_back(entry->d_name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

// "number -> what" of every open descriptor but those of this listing and of the syslog capture's connections.
std::vector<std::string> listDescriptors() {
    std::vector<std::string> descriptors;
    for (const std::string &name : listDirectory("/proc/self/fd")) {
        char target[PATH_MAX] = {};
        const std::string path = "/proc/self/fd/" + name;
        if (readlink(path.c_str(), target, sizeof target - 1) > 0 &&
            std::string(target).find("/fd") == std::string::npos) {
            descriptors.push_back(name + " -> " + target);
        }
    }
    return descriptors;
}

template <typename Record>
uint32_t countFree(const Record *records, uint32_t first) {
    uint32_t count = 0;
    for (uint32_t i = first; i != kNoNext; i = records[i].next) {
        ++count;
    }
    return count;
}

}  // namespace

Inventory takeInventory() {
    takeLog();  // connections of the log are accepted here
    Inventory inventory = {};
    {
        const TableLock lock;
        inventory.free_objects = countFree(objects, firstFreeObject);
        inventory.free_objmem = countFree(objmem, firstFreeObjmem);
        for (const HANDLE bucket : mmapHashTable) {
            inventory.views += bucket != 0;
        }
    }
    inventory.descriptors = listDescriptors();
    inventory.threads = static_cast<uint32_t>(listDirectory("/proc/self/task").size());
    return inventory;
}

bool Inventory::operator==(const Inventory &other) const {
    return free_objects == other.free_objects && free_objmem == other.free_objmem && views == other.views &&
           descriptors == other.descriptors && threads == other.threads;
}

std::ostream &operator<<(std::ostream &out, const Inventory &inventory) {
    out << inventory.free_objects << " free records, " << inventory.free_objmem << " free memory records, "
        << inventory.views << " view chains, " << inventory.threads << " threads, descriptors:";
    for (const std::string &descriptor : inventory.descriptors) {
        out << "\n  " << descriptor;
    }
    return out;
}

void LibraryTest::SetUp() {
    vllvwincompatMain();
    before_ = takeInventory();
    errno = 0;
}

void LibraryTest::TearDown() {
    Inventory after;
    // A thread that has signalled its end takes a moment to disappear.
    waitUntil([&] { return (after = takeInventory()) == before_; }, 5000);
    EXPECT_EQ(after, before_);
}

bool waitUntil(const std::function<bool()> &condition, int limit_ms) {
    const int64_t end = nowMs() + limit_ms;
    while (!condition()) {
        if (nowMs() >= end) {
            return condition();
        }
        usleep(1000);
    }
    return true;
}

bool waitUntilAsleep(pid_t tid, int limit_ms) {
    const std::string path = "/proc/" + std::to_string(tid) + "/stat";
    return waitUntil(
        [&] {
            std::ifstream file(path);
            std::string stat;
            std::getline(file, stat);
            const size_t end = stat.rfind(')');
            return end != std::string::npos && end + 2 < stat.size() && stat[end + 2] == 'S';
        },
        limit_ms);
}

int64_t nowUs(clockid_t clock) {
    timespec now;
    clock_gettime(clock, &now);
    return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}
