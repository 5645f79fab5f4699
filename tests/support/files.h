// Small helpers for tests of files.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <fstream>
#include <sstream>
#include <string>

inline void writeFile(const std::string &path, const std::string &content) {
    std::ofstream(path, std::ios::binary) << content;
}

// Empty when it cannot be read.
inline std::string readFile(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

inline bool exists(const std::string &path) {
    return access(path.c_str(), F_OK) == 0;
}

// Permission bits, or 0 when there is no such file.
inline mode_t modeOf(const std::string &path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}
