// The copy that an edit of a profile writes, and that then takes the file's place.
#pragma once

#include <sys/types.h>
#include <cstddef>
#include <string_view>

#include "base/descriptor.h"
#include "base/fork_handlers.h"
#include "profile/config.h"

// The copy's name is the file's name with "copy" appended, built in a buffer of this size.
constexpr size_t kConfigCopyNameSize = 260;
constexpr char kConfigCopySuffix[] = "copy";

// A copy's descriptor in the list of those that the process holds.
struct HeldCopy {
    int fd;
    HeldCopy *next;
};

// Removes the copy at the end of its scope, unless it has taken the file's place or shall stay.
class ConfigCopy final {
  public:
    // The name has passed vlliCheckConfigFile().
    explicit ConfigCopy(const char *file);
    ~ConfigCopy();
    ConfigCopy(const ConfigCopy &) = delete;
    ConfigCopy &operator=(const ConfigCopy &) = delete;

    // Creates it empty and locks it, once no other edit uses it: false with errno. What an earlier edit left under its
    // name is removed, so that its permissions do not survive.
    bool create(mode_t mode);

    // Gives it these permissions, whatever the umask.
    void setMode(mode_t mode);

    // Appends a line, or a piece of one. It is written when the buffer is full; finish() reports the first failure. What
    // begins a line of the file begins one of the copy, too: the line before may have had no newline.
    void putLine(std::string_view line, bool starts_line = true);

    // Appends bytes, whatever lines they are.
    void put(std::string_view text);

    // True when the last two bytes are newlines.
    bool endsWithEmptyLine() const { return last_bytes_[0] == '\n' && last_bytes_[1] == '\n'; }

    // Writes what is left and flushes the copy to the disk: false with errno when that or any write failed.
    bool finish();

    // Renames the copy to the file's name, so that readers find the old file or the new one, and unlocks it. A failure
    // is not reported, and leaves the copy.
    void replaceFile();

    // Leaves the copy where it is at the end.
    void keep() { remove_ = false; }

  private:
    bool lock(int fd) const;
    bool isUnderName(int fd) const;
    bool removeOld() const;
    void hold(int fd);
    void letGo();
    void writeBuffer();

    const char *file_;
    Fd fd_;
    HeldCopy held_;
    bool remove_ = false;
    int error_ = 0;
    bool at_line_start_ = true;
    char last_bytes_[2] = {};
    size_t used_ = 0;
    char name_[kConfigCopyNameSize];
    char buffer_[kConfigLineSize];
};

extern const ForkHandlers kConfigCopyForkHandlers;
