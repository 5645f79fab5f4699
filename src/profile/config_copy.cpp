// The copy that an edit of a profile writes.
//
// Edits of one file come one at a time: each holds the lock (flock(2)) of the copy from its creation until it has been
// renamed. A copy that can be locked and still has its name belongs to no edit: a killed process has left it. It is
// removed and never used again. An edit that has waited for a lock compares the name with the locked file, since the
// edit before it has renamed or removed that copy. It compares them again before it renames or removes its own copy: on
// a file system without locks, or where a copy cannot be opened, another edit may have taken the name.
//
// A forked child shares the lock through its descriptors. The child closes them, so that it does not keep the lock when
// its parent is killed; and an edit unlocks its copy at the end, whoever shares it.

#include "profile/config_copy.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "base/failure.h"
#include "base/guards.h"

namespace {

pthread_mutex_t copies_mutex = PTHREAD_MUTEX_INITIALIZER;
HeldCopy *held_copies = nullptr;

void lockCopies() {
    pthread_mutex_lock(&copies_mutex);
}

void unlockCopies() {
    pthread_mutex_unlock(&copies_mutex);
}

void closeCopiesInChild() {
    for (; held_copies != nullptr; held_copies = held_copies->next) {
        vlliCloseFd(held_copies->fd);
    }
    unlockCopies();
}

}  // namespace

const ForkHandlers kConfigCopyForkHandlers = {lockCopies, unlockCopies, closeCopiesInChild};

ConfigCopy::ConfigCopy(const char *file) : file_(file) {
    snprintf(name_, sizeof name_, "%s%s", file, kConfigCopySuffix);
}

ConfigCopy::~ConfigCopy() {
    const KeepErrno keep_errno;
    if (remove_ && isUnderName(fd_.get())) {
        unlink(name_);
    }
    letGo();
}

bool ConfigCopy::create(mode_t mode) {
    for (;;) {
        const int fd = open(name_, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode);
        if (fd != -1) {
            hold(fd);
            remove_ = lock(fd);
            if (remove_) {
                return true;
            }
            letGo();  // another edit found it before it was locked, and removed it
        } else if (errno != EEXIST || !removeOld()) {
            return false;
        }
    }
}

// Removes what stands under the copy's name, once no edit uses it: true, also when another copy may have the name by
// now; or false with errno.
bool ConfigCopy::removeOld() const {
    struct stat status;
    if (lstat(name_, &status) == -1) {
        return errno == ENOENT;
    }
    Fd old;
    if (S_ISREG(status.st_mode)) {
        // Some file systems lock only what is open for writing.
        for (const int access : {O_RDWR, O_RDONLY}) {
            if (!old) {
                old.reset(open(name_, access | O_NOFOLLOW | O_CLOEXEC));
            }
        }
        if (old ? !lock(old.get()) : errno == ENOENT || errno == ELOOP) {
            return true;
        }
        if (!old && errno != EACCES) {
            return false;
        }
    }
    return unlink(name_) == 0 || errno == ENOENT;
}

// Waits for the lock of a copy: true when the copy still has its name then. Where there are no locks it has it at once.
bool ConfigCopy::lock(int fd) const {
    (void)vlliRetryOnEintr([&] { return flock(fd, LOCK_EX); });
    return isUnderName(fd);
}

bool ConfigCopy::isUnderName(int fd) const {
    struct stat open_file;
    struct stat named;
    return fstat(fd, &open_file) == 0 && lstat(name_, &named) == 0 && open_file.st_dev == named.st_dev &&
           open_file.st_ino == named.st_ino;
}

void ConfigCopy::hold(int fd) {
    fd_.reset(fd);
    const MutexLock lock(&copies_mutex);
    held_ = {fd, held_copies};
    held_copies = &held_;
}

void ConfigCopy::letGo() {
    if (!fd_) {
        return;
    }
    flock(fd_.get(), LOCK_UN);
    {
        const MutexLock lock(&copies_mutex);
        HeldCopy **link = &held_copies;
        while (*link != &held_) {
            link = &(*link)->next;
        }
        *link = held_.next;
    }
    fd_.reset();
}

void ConfigCopy::setMode(mode_t mode) {
    (void)fchmod(fd_.get(), mode);  // a file system without permissions has none to keep
}

// Whole buffers are written, so that the file system fills a page at a time.
void ConfigCopy::put(std::string_view text) {
    last_bytes_[0] = text.size() > 1 ? text[text.size() - 2] : last_bytes_[1];
    last_bytes_[1] = text.back();
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
    if (vlliRetryOnEintr([&] { return fsync(fd_.get()); }) == -1 && errno != EINVAL) {
        return false;
    }
    // Some file systems report failed writes when a descriptor is closed. The copy stays open for its lock.
    const int duplicate = fcntl(fd_.get(), F_DUPFD_CLOEXEC, 0);
    return duplicate == -1 || vlliCloseFd(duplicate) == 0;
}

void ConfigCopy::replaceFile() {
    if (isUnderName(fd_.get())) {
        (void)rename(name_, file_);
    }
    remove_ = false;
    letGo();
}
