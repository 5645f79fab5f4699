// The command-line tools, as a shell script sees them.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>
#include <climits>
#include <cstdio>
#include <memory>
#include <string>

// The path of a tool: it lies in the directory beside that of this program.
inline std::string toolPath(const std::string &name) {
    char self[PATH_MAX] = {};
    EXPECT_GT(readlink("/proc/self/exe", self, sizeof self - 1), 0);
    const std::string tests = std::string(self).substr(0, std::string(self).rfind('/'));
    return tests.substr(0, tests.rfind('/')) + "/tools/" + name;
}

// What a shell command prints on both outputs, and its exit status.
inline std::string shell(const std::string &command) {
    const std::unique_ptr<FILE, int (*)(FILE *)> pipe(
        popen(("(" + command + ") 2>&1; echo \"<$?>\"").c_str(), "re"), pclose);
    std::string output;
    char buffer[4096];
    size_t count;
    while (pipe != nullptr && (count = fread(buffer, 1, sizeof buffer, pipe.get())) != 0) {
        output.append(buffer, count);
    }
    return output;
}
