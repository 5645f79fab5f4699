#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "base/descriptor.h"
#include "base/failure.h"
#include "base/guards.h"
#include "profile/config.h"
#include "vwincompat/fileops.h"
#include "vwincompat/profile.h"

namespace {

constexpr char kCopySuffix[] = "copy";
constexpr size_t kCopyNameSize = 260;

BOOL fail(int error) {
    return Fail(error);
}

// Writes all of a text: false with errno.
bool writeAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = ::write(fd, text.data(), text.size());
        if (count == -1 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            errno = count == 0 ? EIO : errno;
            return false;
        }
        text.remove_prefix(static_cast<size_t>(count));
    }
    return true;
}

// The copy that takes the file's place, under its name with "copy" appended. Unless it did so, or shall stay, it is
// removed at the end.
class ConfigCopy final {
  public:
    // The file's name has been checked.
    explicit ConfigCopy(const char *file) : file_(file) {
        snprintf(name_, sizeof name_, "%s%s", file, kCopySuffix);
    }
    ~ConfigCopy() {
        if (exists_) {
            const KeepErrno keep_errno;
            unlink(name_);
        }
    }
    ConfigCopy(const ConfigCopy &) = delete;
    ConfigCopy &operator=(const ConfigCopy &) = delete;

    const char *name() const { return name_; }
    int fd() const { return fd_.get(); }

    // Creates it empty. What an earlier edit left there is removed, so that its permissions do not survive.
    bool create() {
        unlink(name_);
        fd_.reset(open(name_, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
        exists_ = static_cast<bool>(fd_);
        return exists_;
    }

    // Takes over what was copied there, with the file's permissions: the copy was made under the process's umask.
    // A copy that cannot be opened stays.
    bool adopt() {
        struct stat status;
        fd_.reset(open(name_, O_RDWR | O_CLOEXEC));
        exists_ = static_cast<bool>(fd_);
        // A file system without permissions, or a file without a name by now, has none to keep.
        if (exists_ && stat(file_, &status) == 0) {
            (void)fchmod(fd_.get(), status.st_mode & 0777);
        }
        return exists_;
    }

    // Leaves it where it is.
    void keep() { exists_ = false; }

    // Written in whole buffers: the file system then fills a page at a time.
    void put(std::string_view text) {
        while (!text.empty()) {
            const size_t count = std::min(text.size(), sizeof buffer_ - used_);
            memcpy(buffer_ + used_, text.data(), count);
            used_ += count;
            text.remove_prefix(count);
            if (used_ == sizeof buffer_) {
                flush();
            }
        }
    }

    // Lines that begin here begin a line of the copy, too: the one before may have lost its newline, or had none.
    void putLine(std::string_view line, bool starts_line = true) {
        if (starts_line && !at_line_start_) {
            put("\n");
        }
        put(line);
        at_line_start_ = line.back() == '\n';
    }

    // Brings everything to the disk: false with errno when any of it failed.
    bool finish() {
        flush();
        if (error_ != 0) {
            return Fail(error_);
        }
        int flushed;
        do {
            flushed = fsync(fd_.get());
        } while (flushed == -1 && errno == EINTR);
        // A file system that cannot flush has nothing to lose by it.
        return (flushed == 0 || errno == EINVAL) && vlliCloseFd(fd_.release()) == 0;
    }

    // Renaming replaces the old file in one step: no reader finds it missing. A failure is not told.
    void replaceFile() {
        exists_ = false;
        (void)rename(name_, file_);
    }

  private:
    // The first failure counts; nothing is written after it.
    void flush() {
        if (error_ == 0 && !writeAll(fd_.get(), {buffer_, used_})) {
            error_ = errno;
        }
        used_ = 0;
    }

    const char *file_;
    Fd fd_;
    bool exists_ = false;
    int error_ = 0;
    bool at_line_start_ = true;
    size_t used_ = 0;
    char name_[kCopyNameSize];
    char buffer_[kConfigLineSize];
};

// What an edit does, and to what.
struct Edit {
    const char *section;
    const char *key;    // null: the whole section
    const char *entry;  // the line to write, or null
};

void copyLine(const ConfigReader &reader, ConfigCopy *copy) {
    copy->putLine(reader.line(), reader.startsLine());
}

// Copies up to the section's header: false when there is none.
bool copyToSection(ConfigReader *reader, ConfigCopy *copy, const char *section, bool with_header) {
    if (section == nullptr) {
        return true;
    }
    std::string_view name;
    while (reader->next()) {
        const bool found = vlliParseSection(reader->line(), &name) && vlliSameName(name, section);
        if (!found || with_header) {
            copyLine(*reader, copy);
        }
        if (found) {
            return true;
        }
    }
    return false;
}

// Copies the section up to and with the next header, without the entries that have the key, or without
// anything when it is null: the number of lines left out.
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

// Copies with the edit done: false when there is nothing to edit.
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
        return fail(reader.error());
    }
    if (!edited) {
        return fail(ENOENT);
    }
    if (!copy.finish()) {
        return FALSE;
    }
    sync();
    copy.replaceFile();
    sync();
    return TRUE;
}

// Appends the header to a copy: FALSE with errno.
BOOL appendSection(const ConfigCopy &copy, const char *section) {
    const off_t size = lseek(copy.fd(), 0, SEEK_END);
    if (size == -1) {
        return FALSE;
    }
    char last[2] = {};
    if (size >= 2 && pread(copy.fd(), last, sizeof last, size - 2) != sizeof last) {
        return FALSE;
    }
    char header[kConfigNameSize + 4];
    const bool after_empty_line = last[0] == '\n' && last[1] == '\n';
    const int length = snprintf(header, sizeof header, "%s[%s]\n", after_empty_line ? "" : "\n", section);
    return writeAll(copy.fd(), {header, static_cast<size_t>(length)});
}

bool hasBlank(const char *key) {
    return strpbrk(key, " \t") != nullptr;
}

constexpr size_t kEntrySize = 2 * kConfigNameSize + 4;

void formatEntry(const char *key, const char *value, char *line) {
    snprintf(line, kEntrySize, hasBlank(key) ? "\"%s\"=%s\n" : "%s=%s\n", key, value);
}

// True when a text cannot be a name: empty, too long, or of several lines.
bool isNoName(const char *text) {
    const size_t length = strnlen(text, kConfigNameSize);
    return length == 0 || length == kConfigNameSize || memchr(text, '\n', length) != nullptr;
}

}  // namespace

BOOL vlliCheckConfigFile(const char *file) {
    if (file == nullptr) {
        return fail(EINVAL);
    }
    const size_t longest = kCopyNameSize - sizeof kCopySuffix;
    return strnlen(file, kCopyNameSize) <= longest ? TRUE : fail(ENAMETOOLONG);
}

BOOL vlliCheckConfigSection(const char *section) {
    return !isNoName(section) && strpbrk(section, "];#") == nullptr ? TRUE : fail(EINVAL);
}

BOOL vlliCheckConfigEntry(const char *key, const char *value) {
    if (isNoName(key) || strnlen(value, kConfigNameSize) == kConfigNameSize) {
        return fail(EINVAL);
    }
    char line[kEntrySize];
    formatEntry(key, "", line);
    ConfigEntry entry;
    return vlliParseEntry(line, &entry) && entry.key == key ? TRUE : fail(EINVAL);
}

BOOL vllAddConfigValue(LPCSTR file, LPCSTR section, LPCSTR key, LPCSTR value) {
    if (key == nullptr || value == nullptr) {
        return fail(EINVAL);
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
        return fail(EINVAL);
    }
    return vlliCheckConfigFile(file) && editFile(file, {section, key, nullptr});
}

BOOL vllDeleteConfigSection(LPCSTR file, LPCSTR section) {
    return vlliCheckConfigFile(file) && editFile(file, {section, nullptr, nullptr});
}

BOOL vllAddConfigSection(LPCSTR file, LPCSTR section) {
    const NoCancel no_cancel;
    if (section == nullptr) {
        return fail(EINVAL);
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
        return fail(reader.error());
    }
    if (found) {
        copy.keep();
        return fail(EEXIST);
    }
    if (!appendSection(copy, section) || !copy.finish()) {
        return FALSE;
    }
    copy.replaceFile();
    return TRUE;
}
