#include "src/NetworkInputText.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <string>
#include <utility>

#include "util/UniqueFd.h"

namespace {

std::string& CommandLinePath() {
    static std::string path = "/proc/cmdline";
    return path;
}

// Far more than the kernel keeps of its command line on any architecture.
constexpr size_t kCommandLineBytes = 4096;

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

}  // namespace

std::string EscapeControlCharacters(const std::string& text) {
    std::string escaped;
    escaped.reserve(text.size());
    for (char c : text) {
        auto byte = static_cast<unsigned char>(c);
        if (c == '\\') {
            escaped += "\\\\";
        } else if (byte < 0x20 || byte == 0x7f) {
            char code[5];
            snprintf(code, sizeof code, "\\x%02x", byte);
            escaped += code;
        } else {
            escaped += c;
        }
    }
    return escaped;
}

bool IsMacAddress(const std::string& text) {
    if (text.size() != 17) return false;
    for (size_t i = 0; i < text.size(); ++i) {
        bool ok = i % 3 == 2 ? text[i] == ':' : isxdigit(static_cast<unsigned char>(text[i])) != 0;
        if (!ok) return false;
    }
    return true;
}

std::string KernelCommandLineMac(const std::string& path) {
    // Non-blocking and bounded: whatever sits at the path, the read ends.
    const Util::UniqueFd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    if (!fd.IsOpen()) return "";
    char bytes[kCommandLineBytes];
    ssize_t count = read(fd.Get(), bytes, sizeof bytes);
    if (count <= 0) return "";

    // awk sees records (lines) and fields split at every "mac=": the second
    // field of the first line, then its first blank-separated word.
    std::string line(bytes, static_cast<size_t>(count));
    line.resize(std::min(line.size(), line.find('\n')));
    size_t start = line.find("mac=");
    if (start == std::string::npos) return "";
    std::string field = line.substr(start + 4);
    field.resize(std::min(field.size(), field.find("mac=")));
    size_t begin = 0;
    while (begin < field.size() && IsBlank(field[begin])) ++begin;
    size_t end = begin;
    while (end < field.size() && !IsBlank(field[end])) ++end;
    return field.substr(begin, end - begin);
}

std::string SetKernelCommandLinePath(std::string path) { return std::exchange(CommandLinePath(), std::move(path)); }

const std::string& KernelCommandLinePath() { return CommandLinePath(); }
