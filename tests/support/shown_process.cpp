#include "support/shown_process.h"

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

void show(FILE *out, const char *text) {
    fwrite(text, 1, strlen(text) + 1, out);
}

void showBlocked(FILE *out) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, 8, "SigBlk:\t") == 0) {
            show(out, line.c_str() + 8);
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
    show(out, directory);
    show(out, path != nullptr ? path : "-");
    showBlocked(out);
    for (int i = 0; i < count; ++i) {
        show(out, arguments[i]);
    }
    _exit(fclose(out) == 0 ? 0 : 96);
}

void check(bool ok, const std::string &what) {
    if (!ok) {
        perror(what.c_str());
        abort();
    }
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
    check(mkdtemp(name) != nullptr && chmod(name, 0755) == 0, name);
    return name;
}

std::string makeShownProgram(const std::string &directory, const std::string &name) {
    char self[PATH_MAX] = {};
    std::string path = directory + "/" + name;
    check(readlink("/proc/self/exe", self, sizeof self - 1) > 0 && symlink(self, path.c_str()) == 0, path);
    return path;
}

std::string makeScript(const std::string &directory, const std::string &name, const std::string &text) {
    std::string path = directory + "/" + name;
    std::ofstream(path) << text;
    check(chmod(path.c_str(), 0755) == 0, path);
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
