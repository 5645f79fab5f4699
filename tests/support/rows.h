// Tables of short rows that are one string each: "input -> expected".
#pragma once

#include <string>
#include <utility>

// The two sides of a row.
inline std::pair<std::string, std::string> splitRow(const std::string &row) {
    const size_t arrow = row.find(" -> ");
    return {row.substr(0, arrow), row.substr(arrow + 4)};
}
