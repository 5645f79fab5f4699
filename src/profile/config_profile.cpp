// The Win32 operations on profiles, made of the readers and the editors.

#include <fcntl.h>
#include <sys/stat.h>
#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/descriptor.h"
#include "base/failure.h"
#include "base/guards.h"
#include "profile/config.h"
#include "vwincompat/profile.h"

namespace {

// The number that atoi(3) reads on the 32-bit target, where one beyond 32 bits becomes the nearest one within. Sets the
// last error to 0.
int32_t toNumber(const char *text) {
    const long long number = strtoll(text, nullptr, 10);
    errno = 0;
    return static_cast<int32_t>(std::clamp<long long>(number, INT32_MIN, INT32_MAX));
}

// Stores as much of "key=value" as fits in size bytes with a terminator.
void storeEntry(const ConfigEntry &entry, char *buffer, size_t size) {
    snprintf(buffer, size, "%.*s=%.*s", static_cast<int>(entry.key.size()), entry.key.data(),
             static_cast<int>(entry.value.size()), entry.value.data());
}

DWORD listEntries(ConfigReader *reader, char *buffer, DWORD size) {
    ConfigEntry entry;
    DWORD count = 0;
    while (reader->nextEntry(&entry)) {
        const DWORD left = size - count;
        const DWORD length = static_cast<DWORD>(entry.key.size() + entry.value.size()) + 2;
        if (length + 1 > left) {
            storeEntry(entry, buffer + count, left > 2 ? left - 2 : 0);
            return Fail(ENOBUFS, size - 2);
        }
        storeEntry(entry, buffer + count, length);
        count += length;
    }
    return count;
}

// Creates the file when it does not exist. It is not truncated: another process may just have created and filled it.
bool makeFile(const char *file) {
    struct stat status;
    if (stat(file, &status) == 0 || errno != ENOENT) {
        return true;  // a file that cannot be examined makes the edit fail
    }
    return static_cast<bool>(Fd(open(file, O_WRONLY | O_CREAT | O_CLOEXEC, 0666)));
}

// Appends the section when the file has none of that name. Reading the file first saves a copy of it.
bool makeSection(const char *file, const char *section) {
    ConfigReader reader;
    if (section == nullptr || (reader.open(file) && reader.findSection(section))) {
        return true;
    }
    return vllAddConfigSection(file, section) || errno == EEXIST;
}

}  // namespace

UINT vllGetPrivateProfileInt(LPCSTR section, LPCSTR key, int32_t default_value, LPCSTR file) {
    char text[50];
    DWORD size = sizeof text;
    const bool found = vllReadConfigValue(file, section, key, text, &size);
    return static_cast<UINT>(found ? toNumber(text) : default_value);
}

DWORD vllGetPrivateProfileString(LPCSTR section, LPCSTR key, LPCSTR default_value, LPSTR buffer, DWORD size,
                                 LPCSTR file) {
    if (section == nullptr && key == nullptr) {
        return Fail(EINVAL, static_cast<DWORD>(-1));
    }
    if (section == nullptr) {
        return vllReadAllSections(default_value, buffer, size, file);
    }
    if (key == nullptr) {
        return vllReadAllValues(section, default_value, buffer, size, file);
    }
    DWORD length = size;
    if (vllReadConfigValue(file, section, key, buffer, &length)) {
        return length;
    }
    if (buffer == nullptr || size == 0) {
        return 0;
    }
    if (errno == ENOBUFS) {
        return size - 1;
    }
    return vlliStoreDefault(default_value, buffer, size);
}

DWORD vllGetPrivateProfileSection(LPCSTR section, LPSTR buffer, DWORD size, LPCSTR file) {
    const NoCancel no_cancel;
    if (file == nullptr || buffer == nullptr || size < 2) {
        return Fail(EINVAL);
    }
    ConfigReader reader;
    if (!reader.open(file)) {
        return 0;
    }
    memset(buffer, 0, size);
    DWORD count = 0;
    if (reader.findSection(section)) {
        count = listEntries(&reader, buffer, size);
    } else {
        errno = ENOENT;
    }
    return reader.error() == 0 ? count : Fail(reader.error(), DWORD{0});
}

BOOL vllWritePrivateProfileString(LPCSTR section, LPCSTR key, LPCSTR value, LPCSTR file) {
    const NoCancel no_cancel;
    if (!vlliCheckConfigFile(file) || (section != nullptr && !vlliCheckConfigSection(section)) ||
        (key != nullptr && value != nullptr && !vlliCheckConfigEntry(key, value))) {
        return FALSE;
    }
    if (!makeFile(file) || !makeSection(file, section)) {
        return FALSE;
    }
    if (key == nullptr) {
        return vllDeleteConfigSection(file, section);
    }
    return value != nullptr ? vllAddConfigValue(file, section, key, value)
                            : vllDeleteConfigValue(file, section, key);
}
