// The lookup of a running program by name.

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/blocking.h"
#include "base/failure.h"
#include "base/guards.h"
#include "vwincompat/process.h"

namespace {

constexpr size_t kCommandSize = 50;
constexpr char kCommand[] = "pidof %s";
constexpr size_t kLongestName = kCommandSize - sizeof "pidof ";
constexpr size_t kLineSize = 256;

// Characters that mean nothing to the shell, wherever they stand in a word.
constexpr char kPlainCharacters[] =
    "abcdefghijklmnopqrstuvwxyz"
    "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
    "0123456789._-+/:@,%=";

bool isPlainName(const char *name) {
    const size_t length = strlen(name);
    return length != 0 && *name != '-' && strspn(name, kPlainCharacters) == length;
}

// The output of a command. The command is waited for at the end, with cancellation off: it is on its way out.
class Command {
  public:
    explicit Command(const char *line) {
        const NoCancel no_cancel;
        stream_ = popen(line, "re");
    }
    ~Command() {
        if (stream_ != nullptr) {
            const NoCancel no_cancel;
            const KeepErrno keep_errno;
            pclose(stream_);
        }
    }
    Command(const Command &) = delete;
    Command &operator=(const Command &) = delete;

    explicit operator bool() const { return stream_ != nullptr; }

    // Reads to the end of the first line, or to the end of the room: a string.
    void readLine(char *line, size_t size) const {
        size_t length = 0;
        while (length < size - 1 && memchr(line, '\n', length) == nullptr) {
            const ssize_t got = vlliBlockInRead(fileno(stream_), line + length, size - 1 - length);
            if (got == 0 || (got == -1 && errno != EINTR)) {
                break;
            }
            length += got > 0 ? static_cast<size_t>(got) : 0;
        }
        line[length] = '\0';
        line[strcspn(line, "\n")] = '\0';
    }

  private:
    FILE *stream_;
};

}  // namespace

int32_t vllGetDaemonPID(LPCSTR lpProgramName) {
    if (lpProgramName == nullptr || !isPlainName(lpProgramName)) {
        return Fail(EINVAL, -1);
    }
    if (strlen(lpProgramName) > kLongestName) {
        return Fail(ENAMETOOLONG, -1);
    }
    char line[kCommandSize];
    snprintf(line, sizeof line, kCommand, lpProgramName);
    const Command command(line);
    if (!command) {
        return -1;
    }
    char answer[kLineSize];
    command.readLine(answer, sizeof answer);
    int32_t pid = -1;
    return sscanf(answer, "%d", &pid) == 1 ? pid : -1;
}
