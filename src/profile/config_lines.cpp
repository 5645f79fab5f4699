// Reading a profile file line by line, through a buffer of one line.

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cstring>

#include "base/failure.h"
#include "base/text.h"
#include "profile/config.h"

bool ConfigReader::open(const char *file) {
    own_.reset(::open(file, O_RDONLY | O_CLOEXEC));
    return own_ && attach(own_.get());
}

bool ConfigReader::attach(int fd) {
    fd_ = fd;
    return fill();
}

// Moves the bytes that are left to the buffer's begin and reads on behind them, which adds nothing at the end of the
// file: false with errno.
bool ConfigReader::fill() {
    memmove(buffer_, buffer_ + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
    const int last_error = errno;
    const ssize_t count = vlliRetryOnEintr([&] { return read(fd_, buffer_ + end_, sizeof buffer_ - end_); });
    if (count == -1) {
        error_ = errno;
        return false;
    }
    errno = last_error;  // an interrupted call leaves EINTR
    at_end_ = count == 0;
    end_ += static_cast<size_t>(count);
    return true;
}

void ConfigReader::takeLine(size_t length) {
    starts_line_ = ended_line_;
    line_ = std::string_view(buffer_ + begin_, length);
    begin_ += length;
    ended_line_ = line_.back() == '\n';
}

bool ConfigReader::next() {
    constexpr size_t kMost = kConfigLineSize - 1;
    for (;;) {
        const size_t length = std::min(end_ - begin_, kMost);
        const void *newline = memchr(buffer_ + begin_, '\n', length);
        if (newline != nullptr) {
            takeLine(static_cast<size_t>(static_cast<const char *>(newline) - (buffer_ + begin_)) + 1);
            return true;
        }
        if (length == kMost || (at_end_ && length != 0)) {
            takeLine(length);
            return true;
        }
        if (at_end_ || error_ != 0 || !fill()) {
            return false;
        }
    }
}

bool ConfigReader::nextBlock() {
    while (begin_ == end_) {
        if (at_end_ || error_ != 0 || !fill()) {
            return false;
        }
    }
    takeLine(end_ - begin_);
    return true;
}

bool ConfigReader::findSection(const char *section) {
    if (section == nullptr) {
        return true;
    }
    std::string_view name;
    while (next()) {
        if (vlliParseSection(line(), &name) && vlliEqualsIgnoringCase(name, section)) {
            return true;
        }
    }
    return false;
}

bool ConfigReader::nextEntry(ConfigEntry *entry) {
    std::string_view name;
    while (next()) {
        if (vlliParseSection(line(), &name)) {
            return false;
        }
        if (vlliParseEntry(line(), entry)) {
            return true;
        }
    }
    return false;
}
