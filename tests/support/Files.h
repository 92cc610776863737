// Reading what the code under test wrote, for the tests and the test support.
#pragma once

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

// The whole file, byte for byte; empty when it cannot be read.
inline std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The lines of a text without their line feeds; a last line without one counts.
inline std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}
