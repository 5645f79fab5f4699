// Profile files: the line parser that readers and editors share, the line reader, and internal operations.
#pragma once

#include <cstddef>
#include <string_view>

#include "base/descriptor.h"
#include "vwincompat/types.h"

constexpr size_t kConfigLineSize = 4096;  // a piece of a line has one byte less at most
constexpr size_t kConfigNameSize = 1024;  // section names, keys and values, with their terminator

struct ConfigEntry {
    std::string_view key = "";
    std::string_view value = "";  // never null
};

// What a line is. The line ends at its first newline or NUL; the results point into it and are untouched when
// the line is something else.
bool vlliParseSection(std::string_view line, std::string_view *name);
bool vlliParseEntry(std::string_view line, ConfigEntry *entry);

// Names are equal without regard to ASCII letter case, whatever the locale.
bool vlliSameName(std::string_view a, std::string_view b);

// True when the line is an entry with this key. Most lines are told by how they begin, without parsing them.
bool vlliIsEntryOf(std::string_view line, std::string_view key);

// The same for NUL-terminated lines: 1 or 0. What is found is copied to those of the buffers, of 1024 bytes each,
// that are not null.
int vlliGetSectionName(const char *line, char *name);
int vlliGetValue(const char *line, char *key, char *value);

// Reads a file line by line, a line of more than 4095 bytes in pieces. Not to be used where the thread can be
// cancelled: see NoCancel.
class ConfigReader final {
  public:
    // Opens a file and reads its first bytes, so that a directory fails here: false with errno.
    bool open(const char *file);
    // The same with an open descriptor, from where it stands.
    bool attach(int fd);

    // Goes on to the next line, or piece: false at the end, or when reading failed.
    bool next();
    // The same with as many bytes as are there, for those that copy the rest.
    bool nextBlock();

    std::string_view line() const { return line_; }
    // True when line() is not the continuation of the one before.
    bool startsLine() const { return starts_line_; }
    // Why reading failed, or 0.
    int error() const { return error_; }

    // Goes on behind the first header with this name, or stays where it is with null: false when there is none.
    bool findSection(const char *section);
    // The next entry before the next header: false when there is none.
    bool nextEntry(ConfigEntry *entry);

  private:
    bool fill();
    void take(size_t length);

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

// Clears the buffer and stores the default there, as much as fits with a terminator: the length of what was stored.
DWORD vlliStoreDefault(const char *text, char *buffer, DWORD size);

// Whether the editors take these arguments: FALSE with EINVAL or ENAMETOOLONG. A section or key that would not be
// read back under its name would be added again by every edit.
BOOL vlliCheckConfigFile(const char *file);
BOOL vlliCheckConfigSection(const char *section);
BOOL vlliCheckConfigEntry(const char *key, const char *value);

// Copies a file. The target is opened with a mode of fopen(3). Returns 0, or 1 with errno; a file that cannot be
// opened is also reported on standard output.
int __CopyFile(const char *source, const char *target, const char *mode);

// Copies the configuration store to a file: 0, or 1 as above.
int __vllRegSaveAllKeys(const char *file);
