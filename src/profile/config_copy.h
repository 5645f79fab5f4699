// The copy that an edit of a profile writes, and that then takes the file's place.
#pragma once

#include <cstddef>
#include <string_view>

#include "base/descriptor.h"
#include "profile/config.h"

// The copy's name is the file's name with "copy" appended, built in a buffer of this size.
constexpr size_t kConfigCopyNameSize = 260;
constexpr char kConfigCopySuffix[] = "copy";

// Removes the copy at the end of its scope, unless it has taken the file's place or shall stay.
class ConfigCopy final {
  public:
    // The name has passed vlliCheckConfigFile().
    explicit ConfigCopy(const char *file);
    ~ConfigCopy();
    ConfigCopy(const ConfigCopy &) = delete;
    ConfigCopy &operator=(const ConfigCopy &) = delete;

    const char *name() const { return name_; }
    int fd() const { return fd_.get(); }

    // Creates it empty, in place of one that an earlier edit left, whose permissions must not survive: false with errno.
    bool create();

    // Opens the copy that vllCopyFile() has made, and gives it the file's permissions, from which the umask was taken.
    // False with errno; the copy then stays.
    bool adopt();

    // Leaves the copy where it is at the end.
    void keep() { exists_ = false; }

    // Appends lines. They are written when the buffer is full, and the first failure is kept until finish(). A line that
    // begins a line of the file begins one of the copy, too: the line before may have had no newline.
    void putLine(std::string_view line, bool starts_line = true);

    // Writes what is left and flushes the copy to the disk: false with errno when that or any write failed.
    bool finish();

    // Renames the copy to the file's name, so that readers find the old file or the new one. A failure is not reported,
    // and leaves the copy.
    void replaceFile();

  private:
    void put(std::string_view text);
    void writeBuffer();

    const char *file_;
    Fd fd_;
    bool exists_ = false;
    int error_ = 0;
    bool at_line_start_ = true;
    size_t used_ = 0;
    char name_[kConfigCopyNameSize];
    char buffer_[kConfigLineSize];
};
