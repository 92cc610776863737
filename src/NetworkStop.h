// The stop request and its grace, and the stop signals that make it: what the
// runner and the pauses heed so a stop never waits on a command that hangs.
#pragma once

#include <cstdint>

// Called from the stop signals' handler (async-signal-safe). From then on the
// daemon has a short grace to finish what it is doing: commands still running
// after it are ended, none is started, and pauses end, so a stop never waits
// on a command that hangs.
void RequestStop();
bool StopRequested();
// Whether the grace after a stop request has run out.
bool StopGraceOver();
// When it runs out (steady ms); INT64_MAX while no stop was requested, or one waits.
int64_t StopGraceEndMs();
// Forgets a stop request (for tests that request one).
void ClearStopRequest();

// While one is alive, a stop request waits: commands still start and run to
// their deadline, and pauses last their whole time. For the few steps that
// must never be cut in half (the register write sequence); when the last one
// ends, the stop's grace starts again from there.
class StopDeferred {
public:
    StopDeferred();
    ~StopDeferred();
    StopDeferred(const StopDeferred&) = delete;
    StopDeferred& operator=(const StopDeferred&) = delete;
};
// Installs `handler` for the stop signals (SIGHUP, SIGINT, SIGTERM, SIGQUIT),
// with all of them held off while it runs, so it is never re-entered.
void InstallStopHandler(void (*handler)(int));
// Blocks the stop signals: the daemon takes them only while it waits (its
// pauses and running commands), so the handler, which logs, never lands in the
// middle of a heap or log call.
void BlockStopSignals();
