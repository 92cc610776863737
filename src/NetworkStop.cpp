// The stop request, its grace and the stop signals.
#include "src/NetworkStop.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cstdint>

#include "src/NetworkClock.h"

namespace {

// After a stop request the daemon may go on this long: a command that ends in
// that time ends normally, so a stop seldom leaves work half done.
constexpr int64_t kStopGraceMs = 1000;

std::atomic<bool> g_bStopRequested{false};
// When the daemon first noticed the stop request (monotonic ms); 0 not yet.
int64_t g_nStopNoticedMs = 0;
// How many StopDeferred are alive; the daemon's one thread alone counts them.
int g_nStopDeferrals = 0;

}  // namespace

int64_t StopGraceEndMs() {
    if (!g_bStopRequested.load() || g_nStopDeferrals > 0) return INT64_MAX;
    if (g_nStopNoticedMs == 0) g_nStopNoticedMs = SteadyMs();
    return g_nStopNoticedMs + kStopGraceMs;
}

namespace {

const int kStopSignals[] = {SIGHUP, SIGINT, SIGTERM, SIGQUIT};

}  // namespace

void InstallStopHandler(void (*handler)(int)) {
    // A second, different stop signal waits for the handler to finish instead of
    // interrupting its log call; it is taken right after, and its exit code
    // overwrites the first's.
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    for (int sig : kStopSignals) sigaddset(&action.sa_mask, sig);
    action.sa_flags = SA_RESTART;
    for (int sig : kStopSignals) sigaction(sig, &action, nullptr);
}

void BlockStopSignals() {
    sigset_t stop;
    sigemptyset(&stop);
    for (int sig : kStopSignals) sigaddset(&stop, sig);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
}

void RequestStop() { g_bStopRequested.store(true); }
bool StopRequested() { return g_bStopRequested.load(); }
bool StopGraceOver() { return SteadyMs() >= StopGraceEndMs(); }
void ClearStopRequest() {
    g_bStopRequested.store(false);
    g_nStopNoticedMs = 0;
}

StopDeferred::StopDeferred() { ++g_nStopDeferrals; }
StopDeferred::~StopDeferred() {
    if (--g_nStopDeferrals == 0 && g_bStopRequested.load()) g_nStopNoticedMs = SteadyMs();
}
