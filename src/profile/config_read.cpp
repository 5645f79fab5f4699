#include <algorithm>
#include <cstring>

#include "base/failure.h"
#include "base/guards.h"
#include "profile/config.h"
#include "vwincompat/profile.h"

namespace {

constexpr DWORD kNoFile = static_cast<DWORD>(-1);

// Copies as much of a value as fits, with a terminator.
void storeText(std::string_view text, char *buffer, DWORD size) {
    if (size != 0) {
        const size_t length = std::min<size_t>(text.size(), size - 1);
        memcpy(buffer, text.data(), length);
        buffer[length] = '\0';
    }
}

// A buffer, cleared first, that becomes a list of strings. Its last byte is never written.
class NameList {
  public:
    NameList(char *buffer, DWORD size) : buffer_(buffer), size_(size) { memset(buffer, 0, size); }

    // Adds a name: false when it had to be cut. A cut list has size - 2 bytes, whatever it holds.
    bool add(std::string_view name) {
        const size_t room = count_ < size_ - 2 ? size_ - 2 - count_ : 0;
        memcpy(buffer_ + count_, name.data(), std::min(name.size(), room));
        if (name.size() > room) {
            errno = ENOBUFS;
            count_ = size_ - 2;
            return false;
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

// What every list reader asks first: 0 when it may go on.
int refuseList(const char *buffer, DWORD size) {
    return buffer == nullptr || size < 2 ? EINVAL : 0;
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

// Where a list ends: a file that broke off is as one that cannot be read.
DWORD endList(const ConfigReader &reader, DWORD result) {
    if (reader.error() != 0) {
        errno = reader.error();
        return kNoFile;
    }
    return result;
}

BOOL storeValue(std::string_view value, char *buffer, DWORD *size) {
    storeText(value, buffer, *size);
    const DWORD length = static_cast<DWORD>(value.size());
    const bool whole = length < *size;
    *size = whole ? length : length + 1;
    errno = whole ? 0 : ENOBUFS;
    return whole;
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
        found = vlliSameName(entry.key, key);
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
    if (const int refused = refuseList(buffer, size)) {
        return Fail(refused);
    }
    ConfigReader reader;
    if (!openProfile(&reader, file)) {
        return kNoFile;
    }
    return endList(reader, listSections(&reader, default_value, buffer, size));
}

DWORD vllReadAllValues(LPCSTR section, LPCSTR default_value, LPSTR buffer, DWORD size, LPCSTR file) {
    const NoCancel no_cancel;
    if (const int refused = refuseList(buffer, size)) {
        return Fail(refused);
    }
    ConfigReader reader;
    if (!openProfile(&reader, file)) {
        return kNoFile;
    }
    return endList(reader, listKeys(&reader, section, default_value, buffer, size));
}
