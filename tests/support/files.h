// Small helpers for tests of files.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <fstream>
#include <iterator>
#include <string>

inline void WriteFile(const std::string &path, const std::string &content) {
    std::ofstream(path, std::ios::binary) << content;
}

inline std::string ReadFile(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline bool Exists(const std::string &path) {
    return access(path.c_str(), F_OK) == 0;
}

// Permission bits, or 0 when there is no such file.
inline mode_t ModeOf(const std::string &path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}
