// Edits of profile files. Each writes a complete copy of the file and renames it into the file's place, so that readers
// and crashes find the old file or the new one. Lines that an edit does not concern keep their bytes.

#include <unistd.h>
#include <cstdio>
#include <cstring>

#include "base/descriptor.h"
#include "base/failure.h"
#include "base/guards.h"
#include "base/text.h"
#include "profile/config.h"
#include "profile/config_copy.h"
#include "vwincompat/fileops.h"
#include "vwincompat/profile.h"

namespace {

struct Edit {
    const char *section;  // null: the lines before the first header
    const char *key;      // null: the whole section is deleted
    const char *entry;    // the line to write; null: entries with the key are deleted
};

void copyLine(const ConfigReader &reader, ConfigCopy *copy) {
    copy->putLine(reader.line(), reader.startsLine());
}

// Copies the lines up to the section's header, and the header when with_header is set: false when there is none.
bool copyToSection(ConfigReader *reader, ConfigCopy *copy, const char *section, bool with_header) {
    if (section == nullptr) {
        return true;
    }
    std::string_view name;
    while (reader->next()) {
        const bool found = vlliParseSection(reader->line(), &name) && vlliEqualsIgnoringCase(name, section);
        if (!found || with_header) {
            copyLine(*reader, copy);
        }
        if (found) {
            return true;
        }
    }
    return false;
}

// Copies the lines of the section but the entries with the key, or no line when the key is null; then the next header.
// The number of lines that were left out.
size_t copySection(ConfigReader *reader, ConfigCopy *copy, const char *key) {
    size_t left_out = 0;
    std::string_view name;
    while (reader->next()) {
        const bool header = vlliParseSection(reader->line(), &name);
        if (!header && (key == nullptr || vlliIsEntryOf(reader->line(), key))) {
            ++left_out;
            continue;
        }
        copyLine(*reader, copy);
        if (header) {
            break;
        }
    }
    return left_out;
}

// Copies the file with the edit made: false when it has nothing to edit.
bool copyEdited(ConfigReader *reader, ConfigCopy *copy, const Edit &edit) {
    if (!copyToSection(reader, copy, edit.section, edit.key != nullptr)) {
        return false;
    }
    if (edit.entry != nullptr) {
        copy->putLine(edit.entry);
    }
    const size_t left_out = copySection(reader, copy, edit.key);
    if (left_out == 0 && edit.key != nullptr && edit.entry == nullptr) {
        return false;
    }
    while (reader->nextBlock()) {
        copyLine(*reader, copy);
    }
    return true;
}

BOOL editFile(const char *file, const Edit &edit) {
    const NoCancel no_cancel;
    ConfigCopy copy(file);
    ConfigReader reader;
    if (!reader.open(file) || !copy.create()) {
        return FALSE;
    }
    const bool edited = copyEdited(&reader, &copy, edit);
    if (reader.error() != 0) {
        return Fail(reader.error());
    }
    if (!edited) {
        return Fail(ENOENT);
    }
    if (!copy.finish()) {
        return FALSE;
    }
    sync();
    copy.replaceFile();
    sync();
    return TRUE;
}

// Appends the header to a copy, behind an empty line: FALSE with errno.
BOOL appendSection(const ConfigCopy &copy, const char *section) {
    const off_t size = lseek(copy.fd(), 0, SEEK_END);
    if (size == -1) {
        return FALSE;
    }
    char last[2] = {};
    if (size >= 2 && vlliReadFullyAt(copy.fd(), last, sizeof last, size - 2) != sizeof last) {
        return FALSE;
    }
    char header[kConfigNameSize + 4];
    const bool after_empty_line = last[0] == '\n' && last[1] == '\n';
    const int length = snprintf(header, sizeof header, "%s[%s]\n", after_empty_line ? "" : "\n", section);
    return vlliWriteFully(copy.fd(), header, static_cast<size_t>(length)) != -1;
}

bool hasBlank(const char *key) {
    return strpbrk(key, " \t") != nullptr;
}

constexpr size_t kEntrySize = 2 * kConfigNameSize + 4;

void formatEntry(const char *key, const char *value, char *line) {
    snprintf(line, kEntrySize, hasBlank(key) ? "\"%s\"=%s\n" : "%s=%s\n", key, value);
}

// True when a text is empty, too long or of several lines.
bool cannotBeName(const char *text) {
    const size_t length = strnlen(text, kConfigNameSize);
    return length == 0 || length == kConfigNameSize || memchr(text, '\n', length) != nullptr;
}

}  // namespace

BOOL vlliCheckConfigFile(const char *file) {
    if (file == nullptr) {
        return Fail(EINVAL);
    }
    const size_t longest = kConfigCopyNameSize - sizeof kConfigCopySuffix;
    return strnlen(file, kConfigCopyNameSize) <= longest ? TRUE : Fail(ENAMETOOLONG);
}

BOOL vlliCheckConfigSection(const char *section) {
    return !cannotBeName(section) && strpbrk(section, "];#") == nullptr ? TRUE : Fail(EINVAL);
}

BOOL vlliCheckConfigEntry(const char *key, const char *value) {
    if (cannotBeName(key) || strnlen(value, kConfigNameSize) == kConfigNameSize) {
        return Fail(EINVAL);
    }
    char line[kEntrySize];
    formatEntry(key, "", line);
    ConfigEntry entry;
    return vlliParseEntry(line, &entry) && entry.key == key ? TRUE : Fail(EINVAL);
}

BOOL vllAddConfigValue(LPCSTR file, LPCSTR section, LPCSTR key, LPCSTR value) {
    if (key == nullptr || value == nullptr) {
        return Fail(EINVAL);
    }
    if (!vlliCheckConfigFile(file) || !vlliCheckConfigEntry(key, value)) {
        return FALSE;
    }
    char line[kEntrySize];
    formatEntry(key, value, line);
    return editFile(file, {section, key, line});
}

BOOL vllDeleteConfigValue(LPCSTR file, LPCSTR section, LPCSTR key) {
    if (key == nullptr) {
        return Fail(EINVAL);
    }
    return vlliCheckConfigFile(file) && editFile(file, {section, key, nullptr});
}

BOOL vllDeleteConfigSection(LPCSTR file, LPCSTR section) {
    return vlliCheckConfigFile(file) && editFile(file, {section, nullptr, nullptr});
}

BOOL vllAddConfigSection(LPCSTR file, LPCSTR section) {
    const NoCancel no_cancel;
    if (section == nullptr) {
        return Fail(EINVAL);
    }
    if (!vlliCheckConfigFile(file) || !vlliCheckConfigSection(section)) {
        return FALSE;
    }
    ConfigCopy copy(file);
    if (!vllCopyFile(file, copy.name(), FALSE) || !copy.adopt()) {
        return FALSE;
    }
    ConfigReader reader;
    const bool found = reader.attach(copy.fd()) && reader.findSection(section);
    if (reader.error() != 0) {
        return Fail(reader.error());
    }
    if (found) {
        copy.keep();
        return Fail(EEXIST);
    }
    if (!appendSection(copy, section) || !copy.finish()) {
        return FALSE;
    }
    copy.replaceFile();
    return TRUE;
}
