// The daemon's steady clock and its pauses, with the seam tests record pauses through.
#pragma once

#include <cstdint>
#include <functional>

// Milliseconds of the system's monotonic clock: the one real steady clock of the
// daemon. The runner's deadlines, the stop's grace and the wait for stopped DHCP
// clients read it always; it is also what MonotonicMs reads unless a test has
// set a clock of its own.
int64_t SteadyMs();

// Waits `milliseconds`; every pause of the daemon (the loop's second, the register
// pulses) goes through here, so tests can record pauses beside the commands.
void Pause(unsigned int milliseconds);

// The function Pause hands its duration to; tests put a recorder here, an empty
// function puts the real pause back. Returns the one it replaced.
using PauseRunner = std::function<void(unsigned int milliseconds)>;
PauseRunner SetPauseRunner(PauseRunner runner);

// The real pause: sleeps the whole period, resuming after a signal is taken, and
// is, with a running command, where the daemon's stop signals are let in.
void SleepLettingSignalsIn(unsigned int milliseconds);
