// tessel-netcheck FILE: reads a configuration file with the daemon's own parser
// and tells what the daemon would make of it: the messages it would log, the
// settings in effect, and whether it would act on the file at all.
// Exit status: 0 usable, 1 not usable, 2 the file cannot be read.
#include <cstdio>
#include <cstring>

#include "ctl/ConfigCheck.h"
#include "util/Version.h"

int main(int argc, char** argv) {
    if (argc == 2 && strcmp(argv[1], "--version") == 0) {
        puts(Util::VersionLine("tessel-netcheck").c_str());
        return 0;
    }
    if (argc != 2 || argv[1][0] == '-') {
        fprintf(stderr,
                "Usage: tessel-netcheck FILE\n"
                "       tessel-netcheck --version\n"
                "Reads FILE as tessel-networkd would and prints its messages, the settings in effect\n"
                "and whether the daemon would act on it. Exit status: 0 usable, 1 not usable,\n"
                "2 the file cannot be read.\n");
        return 2;
    }
    return CheckConfigFile(argv[1]);
}
