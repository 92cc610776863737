// Puts a folder of stand-in programs first on PATH while in scope, so what the
// daemon finds on PATH by itself (ToolOnPath: ebtables, ebtables-restore) is
// the test's, not the machine's; the system's folders follow for the
// commands tests really run. Puts PATH back and removes the folder after.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

class ToolPath {
public:
    explicit ToolPath(const std::vector<std::string>& tools) {
        const char* previous = std::getenv("PATH");
        m_bHad = previous != nullptr;
        if (m_bHad) m_previous = previous;
        char folder[] = "/tmp/tessel-tools-XXXXXX";
        if (mkdtemp(folder) == nullptr) return;
        m_folder = folder;
        for (const std::string& tool : tools) {
            const std::string path = m_folder + "/" + tool;
            std::ofstream(path) << "#!/bin/sh\n";
            chmod(path.c_str(), 0755);
            m_tools.push_back(path);
        }
        setenv("PATH", (m_folder + ":/usr/sbin:/usr/bin:/sbin:/bin").c_str(), 1);
    }
    ~ToolPath() {
        if (m_bHad) {
            setenv("PATH", m_previous.c_str(), 1);
        } else {
            unsetenv("PATH");
        }
        for (const std::string& tool : m_tools) unlink(tool.c_str());
        if (!m_folder.empty()) rmdir(m_folder.c_str());
    }
    ToolPath(const ToolPath&) = delete;
    ToolPath& operator=(const ToolPath&) = delete;

private:
    bool m_bHad = false;
    std::string m_previous;
    std::string m_folder;
    std::vector<std::string> m_tools;
};
