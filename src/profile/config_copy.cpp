// The copy that an edit of a profile writes. Its name is fixed, so that what a killed process left behind is found and
// removed by the next edit.

#include "profile/config_copy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "base/failure.h"

ConfigCopy::ConfigCopy(const char *file) : file_(file) {
    snprintf(name_, sizeof name_, "%s%s", file, kConfigCopySuffix);
}

ConfigCopy::~ConfigCopy() {
    if (exists_) {
        const KeepErrno keep_errno;
        unlink(name_);
    }
}

bool ConfigCopy::create() {
    unlink(name_);
    fd_.reset(open(name_, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    exists_ = static_cast<bool>(fd_);
    return exists_;
}

bool ConfigCopy::adopt() {
    struct stat status;
    fd_.reset(open(name_, O_RDWR | O_CLOEXEC));
    exists_ = static_cast<bool>(fd_);
    // A file system without permissions has none to keep.
    if (exists_ && stat(file_, &status) == 0) {
        (void)fchmod(fd_.get(), status.st_mode & 0777);
    }
    return exists_;
}

// Whole buffers are written, so that the file system fills a page at a time.
void ConfigCopy::put(std::string_view text) {
    while (!text.empty()) {
        const size_t count = std::min(text.size(), sizeof buffer_ - used_);
        memcpy(buffer_ + used_, text.data(), count);
        used_ += count;
        text.remove_prefix(count);
        if (used_ == sizeof buffer_) {
            writeBuffer();
        }
    }
}

void ConfigCopy::putLine(std::string_view line, bool starts_line) {
    if (starts_line && !at_line_start_) {
        put("\n");
    }
    put(line);
    at_line_start_ = line.back() == '\n';
}

void ConfigCopy::writeBuffer() {
    if (error_ == 0 && vlliWriteFully(fd_.get(), buffer_, used_) == -1) {
        error_ = errno;
    }
    used_ = 0;
}

bool ConfigCopy::finish() {
    writeBuffer();
    if (error_ != 0) {
        return Fail(error_);
    }
    // EINVAL: this file system does not support fsync(2), which is no failure.
    const bool flushed = vlliRetryOnEintr([&] { return fsync(fd_.get()); }) == 0 || errno == EINVAL;
    return flushed && vlliCloseFd(fd_.release()) == 0;
}

void ConfigCopy::replaceFile() {
    exists_ = false;
    (void)rename(name_, file_);
}
