// Reading single values, and lists of sections and keys. Every operation reads the file anew from its start.

#include <algorithm>
#include <cstring>

#include "base/failure.h"
#include "base/guards.h"
#include "base/text.h"
#include "profile/config.h"
#include "vwincompat/profile.h"

namespace {

// What a list gives for a file that cannot be read.
constexpr DWORD kNoFile = static_cast<DWORD>(-1);

// Copies as much of a value as fits, with a terminator.
void storeText(std::string_view text, char *buffer, DWORD size) {
    if (size != 0) {
        const size_t length = std::min<size_t>(text.size(), size - 1);
        memcpy(buffer, text.data(), length);
        buffer[length] = '\0';
    }
}

// A list of strings in a buffer, which is cleared first. The buffer's last byte stays 0.
class NameList {
  public:
    NameList(char *buffer, DWORD size) : buffer_(buffer), size_(size) { memset(buffer, 0, size); }

    // Adds a name: false with ENOBUFS when it had to be cut. The count of a list that was cut is size - 2.
    bool add(std::string_view name) {
        const size_t left = count_ < size_ - 2 ? size_ - 2 - count_ : 0;
        memcpy(buffer_ + count_, name.data(), std::min(name.size(), left));
        if (name.size() > left) {
            count_ = size_ - 2;
            return Fail(ENOBUFS);
        }
        count_ += static_cast<DWORD>(name.size()) + 1;
        return true;
    }

    DWORD count() const { return count_; }

  private:
    char *buffer_;
    DWORD size_;
    DWORD count_ = 0;
};

bool canHoldList(const char *buffer, DWORD size) {
    return buffer != nullptr && size >= 2;
}

bool openProfile(ConfigReader *reader, const char *file) {
    if (file == nullptr) {
        return Fail(EINVAL);
    }
    return reader->open(file);
}

DWORD listSections(ConfigReader *reader, const char *default_value, char *buffer, DWORD size) {
    NameList list(buffer, size);
    std::string_view name;
    while (reader->next()) {
        if (vlliParseSection(reader->line(), &name) && !list.add(name)) {
            return list.count();
        }
    }
    return list.count() != 0 ? list.count() : vlliStoreDefault(default_value, buffer, size);
}

DWORD listKeys(ConfigReader *reader, const char *section, const char *default_value, char *buffer,
               DWORD size) {
    NameList list(buffer, size);
    ConfigEntry entry;
    if (reader->findSection(section)) {
        while (reader->nextEntry(&entry)) {
            if (!list.add(entry.key)) {
                return list.count();
            }
        }
    }
    if (list.count() != 0) {
        return list.count();
    }
    return Fail(ENOENT, vlliStoreDefault(default_value, buffer, size));
}

// The result of a list: a file whose end could not be read counts as one that cannot be read.
DWORD endList(const ConfigReader &reader, DWORD result) {
    return reader.error() == 0 ? result : Fail(reader.error(), kNoFile);
}

// Stores a value that was found, and its length or the size that it needs. Sets the last error to 0 or ENOBUFS.
BOOL storeValue(std::string_view value, char *buffer, DWORD *size) {
    storeText(value, buffer, *size);
    const DWORD length = static_cast<DWORD>(value.size());
    if (length >= *size) {
        *size = length + 1;
        return Fail(ENOBUFS);
    }
    *size = length;
    errno = 0;
    return TRUE;
}

}  // namespace

DWORD vlliStoreDefault(const char *text, char *buffer, DWORD size) {
    memset(buffer, 0, size);
    if (text == nullptr) {
        return 0;
    }
    const size_t length = strnlen(text, size - 1);
    memcpy(buffer, text, length);
    return static_cast<DWORD>(length);
}

BOOL vllReadConfigValue(LPCSTR file, LPCSTR section, LPCSTR key, LPSTR buffer, DWORD *size) {
    const NoCancel no_cancel;
    if (key == nullptr || size == nullptr || (buffer == nullptr && *size != 0)) {
        return Fail(EINVAL);
    }
    ConfigReader reader;
    if (!openProfile(&reader, file)) {
        return FALSE;
    }
    ConfigEntry entry;
    bool found = false;
    const bool in_section = reader.findSection(section);
    while (in_section && !found && reader.nextEntry(&entry)) {
        found = vlliEqualsIgnoringCase(entry.key, key);
    }
    if (found) {
        return storeValue(entry.value, buffer, size);
    }
    errno = reader.error() != 0 ? reader.error() : ENOENT;
    if (in_section && reader.error() == 0) {
        storeText("", buffer, *size);
        *size = 0;
    }
    return FALSE;
}

DWORD vllReadAllSections(LPCSTR default_value, LPSTR buffer, DWORD size, LPCSTR file) {
    const NoCancel no_cancel;
    if (!canHoldList(buffer, size)) {
        return Fail(EINVAL);
    }
    ConfigReader reader;
    if (!openProfile(&reader, file)) {
        return kNoFile;
    }
    return endList(reader, listSections(&reader, default_value, buffer, size));
}

DWORD vllReadAllValues(LPCSTR section, LPCSTR default_value, LPSTR buffer, DWORD size, LPCSTR file) {
    const NoCancel no_cancel;
    if (!canHoldList(buffer, size)) {
        return Fail(EINVAL);
    }
    ConfigReader reader;
    if (!openProfile(&reader, file)) {
        return kNoFile;
    }
    return endList(reader, listKeys(&reader, section, default_value, buffer, size));
}
