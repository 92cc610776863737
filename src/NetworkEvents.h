// What the daemon waits on between passes: the kernel's link, address and route
// notifications and changes of the configuration and lease files, with the
// one-second pass kept as the backstop.
#pragma once

#include <cstddef>
#include <string>

#include "src/NetworkCycle.h"
#include "util/UniqueFd.h"

// The two sources, held by main for the daemon's life. Either may be closed
// (the kernel or the system refused it): the passes then come once a second only.
struct EVENT_WATCH {
    Util::UniqueFd m_kernel;  // rtnetlink: links, IPv4 addresses, IPv4 routes
    Util::UniqueFd m_files;   // inotify: the configuration file's directory and /tmp
    Util::UniqueFd m_poll;    // both as one epoll set, made at the first wait
    int m_nConfigWatch = -1;
    int m_nLeaseWatch = -1;
    std::string m_configName;  // the configuration file's name in its directory
};

// The directory the DHCP client's script puts its lease files in.
constexpr const char* kLeaseDirectory = "/tmp";

// Opens both sources for the configuration file at `configPath`. What cannot
// be opened is logged (a WARN) and left closed.
EVENT_WATCH OpenEventWatch(const std::string& configPath);

// What a batch of notifications said.
struct EVENTS {
    bool m_bKernel = false;         // a link, address or route changed, or notifications were lost
    bool m_bEth0Reported = false;   // eth0's link was reported ...
    bool m_bEth0Running = false;    // ... last as up and running (or not)
    bool m_bConfigWritten = false;  // the configuration file was closed after writing, put in place or removed
    bool m_bConfigWriting = false;  // ... and, after that, written to without being closed yet
    bool m_bLeaseWritten = false;   // a lease file was put in place
};

// Adds what rtnetlink messages (as read from the socket) say to `events`.
void NoteKernelMessages(const char* data, size_t length, EVENTS& events);
// Adds what inotify records (as read from its descriptor) say to `events`.
void NoteFileEvents(const EVENT_WATCH& watch, const char* data, size_t length, EVENTS& events);

// Reads everything the sources hold now, without waiting.
EVENTS TakeEvents(EVENT_WATCH& watch);

// Between two passes: returns after `milliseconds`, or at once when the pass
// brought news, or as soon as something worth a pass happens meanwhile: the
// configuration file written and closed (or put in place), a lease file put in
// place, eth0's link lost, or something the daemon built undone from outside
// (CheckForOutsideChanges). A burst of notifications is taken as one, a few
// milliseconds after it stops. What queued during the pass itself (mostly the
// pass's own commands) counts only as far as the kernel's state differs from
// what the pass built. Stop signals are let in while it waits; after one it
// returns when the stop's grace ends. Without sources it is Pause(milliseconds).
void AwaitNextPass(EVENT_WATCH& watch, CYCLE_STATE& state, unsigned int milliseconds);
