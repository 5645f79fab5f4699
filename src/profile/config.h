// Profile files: the grammar of a line, the reader of lines, and what readers and editors share.
#pragma once

#include <cstddef>
#include <string_view>

#include "base/descriptor.h"
#include "vwincompat/types.h"

constexpr size_t kConfigLineSize = 4096;  // the buffer of a line: 4095 bytes are read as one line at most
constexpr size_t kConfigNameSize = 1024;  // section names, keys and values, with their terminator

struct ConfigEntry {
    std::string_view key = "";
    std::string_view value = "";  // never null
};

// Whether a line is a section header, or an entry. A line ends at its first newline or NUL. The results point into it;
// they are untouched when it is something else.
bool vlliParseSection(std::string_view line, std::string_view *name);
bool vlliParseEntry(std::string_view line, ConfigEntry *entry);

// True when the line is an entry with this key. Most lines are refused by their first characters, without being parsed.
bool vlliIsEntryOf(std::string_view line, std::string_view key);

// The same for NUL-terminated lines: 1 or 0. What is found is copied to the buffers, of 1024 bytes each, that are not
// null.
int vlliGetSectionName(const char *line, char *name);
int vlliGetValue(const char *line, char *key, char *value);

// Reads a file line by line, and a line of more than 4095 bytes in pieces. Reading is a cancellation point that leaks
// the descriptor of the file: callers disable cancellation (NoCancel).
class ConfigReader final {
  public:
    // Opens a file and reads its first bytes, so that a directory fails here: false with errno.
    bool open(const char *file);
    // Reads from a descriptor of the caller's instead, from its present position: false with errno.
    bool attach(int fd);

    // Goes on to the next line, or piece of one: false at the end, or when reading failed.
    bool next();
    // Goes on to all bytes that are in the buffer, for a caller that copies the rest of the file: false at the end, or
    // when reading failed.
    bool nextBlock();

    std::string_view line() const { return line_; }
    // False when line() is a further piece of a line.
    bool startsLine() const { return starts_line_; }
    // The error number of the read that failed, or 0.
    int error() const { return error_; }

    // Goes on to the first header with this name: false when there is none. With null it stays where it is.
    bool findSection(const char *section);
    // Goes on to the next entry: false when a header or the end comes first.
    bool nextEntry(ConfigEntry *entry);

  private:
    bool fill();
    void takeLine(size_t length);

    Fd own_;
    int fd_ = -1;
    int error_ = 0;
    bool at_end_ = false;
    bool starts_line_ = true;
    bool ended_line_ = true;
    size_t begin_ = 0;
    size_t end_ = 0;
    std::string_view line_;
    char buffer_[kConfigLineSize];
};

// Clears the buffer and stores the default in it, cut to size - 1 bytes: the number of bytes stored.
DWORD vlliStoreDefault(const char *text, char *buffer, DWORD size);

// Whether the editors accept these arguments: FALSE with EINVAL or ENAMETOOLONG. A section or key that would not be
// read back under its name is refused, since every edit would add it once more.
BOOL vlliCheckConfigFile(const char *file);
BOOL vlliCheckConfigSection(const char *section);
BOOL vlliCheckConfigEntry(const char *key, const char *value);

// Copies a file. The target is opened with a mode of fopen(3). 0, or 1 with errno; a file that cannot be opened is also
// reported on standard output.
int __CopyFile(const char *source, const char *target, const char *mode);

// Copies the system's configuration store to a file: 0, or 1 as above.
int __vllRegSaveAllKeys(const char *file);
