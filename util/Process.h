// A shell command's first line of output, and the byte-block diagnostic hook.
#pragma once

#include <string>
#include <vector>

namespace Util {

// The first line a shell command prints (at most 1023 bytes, its line feed
// included when it fits), "" when it prints nothing, "Unable to run" when the
// command cannot be started. Waits for the command to finish.
std::string ReadStdOutFromSystemCall(const char* command);

// Diagnostic hook for byte blocks; prints nothing in this build.
void PrintDataBlock(const char* title, const std::vector<unsigned char>& data);

}  // namespace Util
