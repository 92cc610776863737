#pragma once

#include <unistd.h>

#include <cstdio>
#include <string>

#include "src/NetworkInputText.h"

// A kernel command line of the test's own in place of the machine's, as long
// as it lives.
class KernelCommandLine {
public:
    explicit KernelCommandLine(const std::string& text)
        : m_path("/tmp/tessel-cmdline-" + std::to_string(getpid()) + "-" + std::to_string(++s_count)) {
        FILE* file = fopen(m_path.c_str(), "w");
        if (file != nullptr) {
            fputs(text.c_str(), file);
            fclose(file);
        }
        m_previous = SetKernelCommandLinePath(m_path);
    }
    ~KernelCommandLine() {
        SetKernelCommandLinePath(m_previous);
        std::remove(m_path.c_str());
    }
    KernelCommandLine(const KernelCommandLine&) = delete;
    KernelCommandLine& operator=(const KernelCommandLine&) = delete;

private:
    static inline int s_count = 0;
    std::string m_path;
    std::string m_previous;
};
