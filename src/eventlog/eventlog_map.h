// The log files in memory, and how many lines they have. Everything here needs syslogMutex.
#pragma once

#include <sys/stat.h>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "vwincompat/types.h"

// What one log file holds: entry 0 is the current file, entry 1 the one that was rotated out before it.
struct SyslogMapping {
    uint32_t nRecords;  // its lines
    const char *pData;  // nSize bytes, read-only; null when the file is absent or empty
    uint32_t nSize;
};

constexpr int kSyslogFiles = 2;
extern SyslogMapping SyslogMappings[kSyslogFiles];
extern uint32_t nSyslogRecordsTotal;

constexpr size_t kSyslogPathSize = 64;

// The path of an entry's file.
void vlliGetSyslogPath(int entry, char (&path)[kSyslogPathSize]);

// One log file in memory: the copy of its bytes that SyslogMappings shows, and the state of the file that was copied.
class LogFile {
  public:
    constexpr explicit LogFile(int entry) : entry_(entry) {}

    // Brings the copy up to date with the file, and sets *changed (never clears it) when the bytes are other ones.
    // FALSE with errno and an empty entry when the file is there but cannot be read.
    BOOL refresh(int *changed);

    // Drops the copy: FALSE with errno when munmap(2) fails; the entry is empty all the same.
    BOOL drop();

    // Counts the lines, after a change.
    void countLines();

    // The bytes up to the first NUL behind the first byte, as the last count found it.
    std::string_view text() const { return {mapping().pData, text_size_}; }

    // Changes with the bytes; never 0.
    uint32_t generation() const { return generation_; }

  private:
    SyslogMapping &mapping() const { return SyslogMappings[entry_]; }
    bool hasContentOf(int fd, const struct stat &status) const;
    BOOL copy(int fd, size_t size);
    void dropChanged(int *changed);

    int entry_;
    struct stat status_ = {};
    bool settled_ = false;  // a later change of the file shows in its status
    size_t text_size_ = 0;
    uint32_t generation_ = 1;
};

extern LogFile log_files[kSyslogFiles];

// refresh() of an entry.
BOOL vlliMapSyslogFile(int entry, int *changed);

// The same for entry 0, then entry 1; stops at the first failure.
BOOL vlliMapSyslogFiles(int *changed);

// Counts the lines of both entries and their sum, after a change.
void vlliGetSyslogRecordsNumber();
