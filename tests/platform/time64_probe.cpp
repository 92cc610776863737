// Calls C library functions that a 32-bit target has in a 32-bit and a 64-bit
// time or offset form; tools/check-time64's test links it and reads what it
// imports. It is never run.
#include <dirent.h>
#include <sys/stat.h>

#include <ctime>

#ifdef PROBE_SYSTEM_CLOCK
#include <chrono>
#endif

int main(int argc, char** argv) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts{};
    localtime_r(&now.tv_sec, &parts);
    const time_t back = mktime(&parts);
    struct stat status {};
    const int statResult = stat(argc > 0 ? argv[0] : "/", &status);
    DIR* root = opendir("/");
    if (root != nullptr) {
        readdir(root);
        closedir(root);
    }
    const timespec pause = {0, 1};
    nanosleep(&pause, nullptr);
#ifdef PROBE_SYSTEM_CLOCK
    return static_cast<int>(std::chrono::system_clock::now().time_since_epoch().count() & 1);
#else
    return static_cast<int>((back ^ statResult) & 1);
#endif
}
