#include "util/Process.h"

#include <cstdio>
#include <memory>

namespace Util {

std::string ReadStdOutFromSystemCall(const char* command) {
    // Closed with pclose, which also reaps the shell: a long-lived caller would
    // otherwise gather one open pipe and one zombie per call.
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command, "r"), pclose);
    if (!pipe) {
        puts("ERROR: unable to run command as subprocess");
        return "Unable to run";
    }
    char line[1024];
    if (fgets(line, sizeof line, pipe.get()) == nullptr) return "";
    line[sizeof line - 1] = '\0';
    return line;
}

void PrintDataBlock(const char* /*title*/, const std::vector<unsigned char>& /*data*/) {}

}  // namespace Util
