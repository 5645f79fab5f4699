#include "support/shown_process.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

namespace {

const char *const kVariable = "VLL_TEST_SHOW";

void tell(FILE *out, const char *text) {
    fwrite(text, 1, strlen(text) + 1, out);
}

void tellBlocked(FILE *out) {
    FILE *status = fopen("/proc/self/status", "r");
    char line[256];
    while (status != nullptr && fgets(line, sizeof line, status) != nullptr) {
        if (strncmp(line, "SigBlk:\t", 8) == 0) {
            line[strcspn(line, "\n")] = '\0';
            tell(out, line + 8);
        }
    }
}

// Before main(), so that any test binary can be the program.
__attribute__((constructor)) void showProcess(int count, char **arguments, char **) {
    const char *file = getenv(kVariable);
    if (file == nullptr) {
        return;
    }
    FILE *out = fopen(file, "w");
    char directory[PATH_MAX] = "?";
    const char *path = getenv("PATH");
    if (out == nullptr || getcwd(directory, sizeof directory) == nullptr) {
        _exit(97);
    }
    tell(out, directory);
    tell(out, path != nullptr ? path : "-");
    tellBlocked(out);
    for (int i = 0; i < count; ++i) {
        tell(out, arguments[i]);
    }
    _exit(fclose(out) == 0 ? 0 : 96);
}

std::vector<std::string> readStrings(const std::string &file) {
    std::ifstream in(file, std::ios::binary);
    std::vector<std::string> strings;
    std::string text;
    while (std::getline(in, text, '\0')) {
        strings.push_back(text);
    }
    return strings;
}

}  // namespace

std::string makeProgramDirectory() {
    char name[] = "/dev/programsXXXXXX";
    if (mkdtemp(name) == nullptr) {
        perror(name);
        abort();
    }
    chmod(name, 0755);
    return name;
}

std::string makeShownProgram(const std::string &directory, const std::string &name) {
    char self[PATH_MAX] = {};
    std::string path = directory + "/" + name;
    if (readlink("/proc/self/exe", self, sizeof self - 1) <= 0 || symlink(self, path.c_str()) != 0) {
        perror(path.c_str());
        abort();
    }
    return path;
}

std::string makeScript(const std::string &directory, const std::string &name, const std::string &text) {
    std::string path = directory + "/" + name;
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0755);
    if (fd == -1 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        close(fd) != 0) {
        perror(path.c_str());
        abort();
    }
    return path;
}

ShowProcesses::ShowProcesses() {
    static int count;
    file_ = "/dev/shown" + std::to_string(getpid()) + "." + std::to_string(++count);
    setenv(kVariable, file_.c_str(), 1);
}

ShowProcesses::~ShowProcesses() {
    unsetenv(kVariable);
    unlink(file_.c_str());
}

ShownProcess ShowProcesses::take() {
    const std::vector<std::string> strings = readStrings(file_);
    unlink(file_.c_str());
    ShownProcess shown;
    if (strings.size() >= 3) {
        shown.directory = strings[0];
        shown.path = strings[1];
        shown.blocked = strings[2];
        shown.arguments.assign(strings.begin() + 3, strings.end());
    }
    return shown;
}
