// A private directory under $TMPDIR (or /tmp) for one test, removed with
// everything in it when the test ends.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

class TempDir {
public:
    TempDir() {
        const char* base = getenv("TMPDIR");
        std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/tessel-test-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) ADD_FAILURE() << "mkdtemp " << pattern << " failed";
        m_path = pattern;
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return m_path; }
    std::string Path(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};
