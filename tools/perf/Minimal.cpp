// The memory floor: the smallest C++ program built and linked like the daemon
// (same flags, the C++ runtime as a shared library). It starts, builds one
// string, writes it and waits to be killed.
#include <unistd.h>

#include <cstdio>
#include <string>

int main(int argc, char**) {
    std::string text = "tessel-minimal " + std::to_string(argc);
    puts(text.c_str());
    fflush(stdout);
    for (;;) pause();
}
