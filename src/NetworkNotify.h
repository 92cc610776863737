// Telling the service manager how the daemon is doing: readiness, the watchdog
// and stopping, as datagrams to $NOTIFY_SOCKET. Without that variable (not
// started as a notify service) every call does nothing.
#pragma once

// The first cycle is done.
void NotifyReady();
// The daemon is still cycling. Sent at most every half watchdog period
// ($WATCHDOG_USEC), so calling it often costs a clock read.
void NotifyWatchdog();
// The daemon is on its way out.
void NotifyStopping();
