// Settings from a profile (INI) file.

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "gateway.h"

namespace {

constexpr char kSection[] = "gateway";

constexpr struct {
    const char *key;
    int Settings::*setting;
    int low;
    int high;
} kNumbers[] = {
    {"clients", &Settings::max_clients, 1, kMaxClients},
    {"workers", &Settings::workers, 1, kMaxWorkers},
    {"heartbeat", &Settings::heartbeat_seconds, 1, 3600},
    {"idle", &Settings::idle_seconds, 1, 86400},
};

}  // namespace

bool profileRead(const char *file) {
    char entries[1024];
    // An absent section gives 0, as an empty one does; the last error tells them apart.
    errno = 0;
    vllGetPrivateProfileSection(kSection, entries, sizeof entries, file);
    if (errno != 0 && errno != ENOBUFS) {
        fprintf(stderr, "gateway: %s: section %s: %s\n", file, kSection, strerror(errno));
        return false;
    }
    for (const auto &number : kNumbers) {
        int *const setting = &(settings.*number.setting);
        const int value = static_cast<int>(vllGetPrivateProfileInt(kSection, number.key, *setting, file));
        if (value < number.low || value > number.high) {
            fprintf(stderr, "gateway: %s: %s is not from %d to %d\n", file, number.key, number.low,
                    number.high);
            return false;
        }
        *setting = value;
    }
    settings.verbose = vllGetPrivateProfileInt(kSection, "verbose", settings.verbose, file) != 0;
    return true;
}
