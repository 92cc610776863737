// Text that comes from outside the daemon (files anyone may have written, the
// kernel command line) is checked here before it reaches a shell or the log.
#pragma once

#include <string>

// The text with every control character (and the backslash) written as an
// escape, so a file's content can never start a new log line or move the cursor.
std::string EscapeControlCharacters(const std::string& text);

// Six pairs of hexadecimal digits separated by colons, nothing else.
bool IsMacAddress(const std::string& text);

// The word after the first "mac=" on the first line of the file (the kernel
// command line), as `awk -Fmac= '{print $2}' | awk '{print $1}'` would print it;
// empty when there is none or the file cannot be read. Not checked.
std::string KernelCommandLineMac(const std::string& path);

// Where the daemon reads the kernel command line: /proc/cmdline. Tests put a
// file of their own here; returns the path it replaced.
std::string SetKernelCommandLinePath(std::string path);
const std::string& KernelCommandLinePath();
