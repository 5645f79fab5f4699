#include "support/private_machine.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

void check(bool ok, const std::string &what) {
    if (!ok) {
        fprintf(stderr, "private machine: %s: %s\n", what.c_str(), strerror(errno));
        _exit(3);
    }
}

void writeFile(const std::string &path, const std::string &content) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    check(fd != -1, path);
    check(write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()), path);
    close(fd);
}

// An ordinary user becomes root of a user namespace of its own.
void enterNamespaces() {
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    check(unshare(uid == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER) == 0, "unshare");
    if (uid != 0) {
        writeFile("/proc/self/setgroups", "deny");
        writeFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
        writeFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
    }
    check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "mount --make-rprivate /");
}

// The directory where the new /dev is put together.
const char *const kStage = "/tmp";

// The nodes of the machine's /dev that the private one has, too.
const char *const kNodes[] = {"null",  "zero", "full", "random", "urandom", "tty",    "fd",     "console",
                              "tty10", "rtc",  "rtc0", "ttyS0",  "ttyACM0", "ttyGS0", "ttyAMA0"};

void takeOver(const std::string &from, const std::string &to) {
    struct stat status;
    if (lstat(from.c_str(), &status) == -1) {
        return;
    }
    if (S_ISLNK(status.st_mode)) {
        char target[256] = {};
        check(readlink(from.c_str(), target, sizeof target - 1) > 0, from);
        check(symlink(target, to.c_str()) == 0, to);
        return;
    }
    if (S_ISDIR(status.st_mode)) {
        check(mkdir(to.c_str(), 0755) == 0, to);
    } else {
        writeFile(to, "");
    }
    check(mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0, "bind " + from);
}

void makeDev() {
    check(mount("dev", kStage, "tmpfs", 0, "mode=0755") == 0, "mount tmpfs");
    for (const char *node : kNodes) {
        takeOver(std::string("/dev/") + node, std::string(kStage) + "/" + node);
    }
    const std::string shm = std::string(kStage) + "/shm";
    check(mkdir(shm.c_str(), 0755) == 0, shm);
    check(mount("shm", shm.c_str(), "tmpfs", 0, "mode=1777") == 0, "mount " + shm);
    const std::string pts = std::string(kStage) + "/pts";
    check(mkdir(pts.c_str(), 0755) == 0, pts);
    check(mount("devpts", pts.c_str(), "devpts", 0, "newinstance,ptmxmode=0666") == 0, "mount devpts");
    check(symlink("pts/ptmx", (std::string(kStage) + "/ptmx").c_str()) == 0, "ptmx");
    check(mount(kStage, "/dev", nullptr, MS_BIND | MS_REC, nullptr) == 0, "bind /dev");
    check(umount2(kStage, MNT_DETACH) == 0, "umount");
}

}  // namespace

void enterPrivateMachine() {
    enterNamespaces();
    makeDev();
}

void enterPrivateRoot() {
    std::string root = "/mnt";
    for (const char *path : {"/mnt", "/media", "/srv", "/tmp"}) {
        if (access(path, F_OK) == 0) {
            root = path;
            break;
        }
    }
    const std::unique_ptr<char, void (*)(void *)> cwd(getcwd(nullptr, 0), free);
    const std::unique_ptr<DIR, int (*)(DIR *)> old_root(opendir("/"), closedir);
    check(cwd != nullptr && old_root != nullptr, "/");
    coverDirectory(root);
    while (const dirent *entry = readdir(old_root.get())) {
        const std::string path = std::string("/") + entry->d_name;
        if (entry->d_name[0] != '.' && path != root) {
            takeOver(path, root + path);
        }
    }
    check(chroot(root.c_str()) == 0 && chdir(cwd.get()) == 0, "chroot");
}

void coverDirectory(const std::string &path, const char *size) {
    const std::string options = size != nullptr ? std::string("mode=0755,size=") + size : "mode=0755";
    check(mount("cover", path.c_str(), "tmpfs", 0, options.c_str()) == 0, "cover " + path);
}

void coverFile(const std::string &path, const std::string &content) {
    const std::string copy = "/dev/cover" + std::to_string(getpid());
    writeFile(copy, content);
    umount2(path.c_str(), MNT_DETACH);  // an earlier cover is unlinked, so nothing can be mounted on it
    check(mount(copy.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) == 0, "cover " + path);
    unlink(copy.c_str());
}

std::string freshDirectory() {
    static bool covered = false;
    if (covered) {
        umount2("/mnt", MNT_DETACH);
    }
    coverDirectory("/mnt");
    covered = true;
    return "/mnt";
}

bool onTarget() {
    return getenv("VLL_TARGET") != nullptr;
}
