// What the daemon waits on between passes: the kernel's link, address and route
// notifications and changes of the configuration and lease files, with the
// one-second pass kept as the backstop.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "src/NetworkCycle.h"
#include "util/UniqueFd.h"

// The links the daemon builds or takes into br0; notifications of any other
// link are no news to it.
constexpr size_t kOwnedLinkCount = 7;
extern const char* const kOwnedLinks[kOwnedLinkCount];

// The kernel's index of each of kOwnedLinks (0: none known), so that a
// notification naming an owned link by its index alone (an address, a link
// renamed or deleted under another name, a port joining br0) is still known
// as one. Learned from the notifications and looked up at each wait.
struct OWNED_LINKS {
    int m_indexes[kOwnedLinkCount] = {};
};

// The two sources, held by main for the daemon's life. Either may be closed
// (the kernel or the system refused it): the passes then come once a second only.
struct EVENT_WATCH {
    Util::UniqueFd m_kernel;  // rtnetlink: links, IPv4 addresses, IPv4 routes
    Util::UniqueFd m_files;   // inotify: the configuration file's directory and /tmp
    Util::UniqueFd m_nft;     // nf_tables' commits (closed without nf_tables: the looks stay periodic)
    Util::UniqueFd m_poll;    // the sources as one epoll set, made at the first wait
    int m_nConfigWatch = -1;
    int m_nLeaseWatch = -1;
    std::string m_configName;  // the configuration file's name in its directory
    OWNED_LINKS m_owned;
    int64_t m_nLastFileWakeMs = -1;  // steady ms of the last pass the files brought early; -1: none yet
    int64_t m_nLastNftWakeMs = -1;   // ... nf_tables' commits brought early; -1: none yet
    int64_t m_nLastLostLookMs = -1;  // steady ms of the last look lost kernel notifications brought; -1: none yet
    int64_t m_nLostLookDueMs = -1;   // a look they owe, held back to then (steady ms); -1: none owed
    std::string m_pendingName;       // the pending configuration record's name in that directory
    bool m_bPendingLookDue = false;  // that record (or lost notifications) changed: main looks at it
    // An owned link was reported, or kernel notifications were lost, since
    // main last took it: eth1's link is read again for the status. True until
    // the first wait, which reads what came before the watch was opened.
    bool m_bLinksReported = true;
};

// The directory the DHCP client's script puts its lease files in.
constexpr const char* kLeaseDirectory = "/tmp";

// Opens both sources for the configuration file at `configPath`. What cannot
// be opened is logged (a WARN) and left closed.
EVENT_WATCH OpenEventWatch(const std::string& configPath);

// What a batch of notifications said.
struct EVENTS {
    bool m_bKernel = false;         // an owned link, an address or a route changed
    bool m_bLinkReported = false;   // an owned link was reported (eth1's state among what may have moved)
    bool m_bKernelLost = false;     // kernel notifications were lost (queue overflow, one too long to read)
    bool m_bEth0Reported = false;   // eth0's link was reported ...
    bool m_bEth0Running = false;    // ... last as up and running (or not)
    bool m_bConfigWritten = false;  // the configuration file was closed after writing, put in place or removed
    bool m_bConfigWriting = false;  // ... and, after that, written to without being closed yet
    bool m_bLeaseWritten = false;   // a lease file the pass would take was put in place
    bool m_bFilesLost = false;      // the file notifications' queue overflowed: anything may have changed
    bool m_bNftCommitted = false;   // nf_tables was committed to, or its notifications were lost
    bool m_bRecordChanged = false;  // the pending configuration record was written, renamed or removed
};

// Adds what rtnetlink messages (as read from the socket) say to `events`: only
// what concerns an owned link (by name, or by an index in `owned`, which the
// link messages keep up to date), and IPv4 default routes.
void NoteKernelMessages(const char* data, size_t length, EVENTS& events, OWNED_LINKS* owned = nullptr);
// Whether the lease file at `path` is one the pass would take rather than
// ignore (a regular file of the daemon's own user, written by no one else, with
// no other name): judged from its status alone, without reading it.
bool LeaseFileTaken(const char* path);
// Adds what inotify records (as read from its descriptor) say to `events`.
void NoteFileEvents(const EVENT_WATCH& watch, const char* data, size_t length, EVENTS& events);

// Reads everything the sources hold now, without waiting.
EVENTS TakeEvents(EVENT_WATCH& watch);

// The least time between two passes the files bring early.
constexpr int64_t kFileWakeSpacingMs = 1000;
// The least time between two passes nf_tables' commits bring early.
constexpr int64_t kNftWakeSpacingMs = 1000;

// Between two passes: returns after `milliseconds`, or at once when the pass
// brought news, or as soon as something worth a pass happens meanwhile: the
// configuration file written and closed (or put in place), a lease file the
// pass would take put in place, eth0's link lost, or something the daemon
// built undone from outside (CheckForOutsideChanges); while the two-port
// isolation is looked at, a commit to nf_tables makes its look due at once
// (one such pass a second at most, kNftWakeSpacingMs). The configuration's
// writes and lost file notifications bring at most one pass a second early
// (kFileWakeSpacingMs), and lost kernel notifications one look a second at
// most; a lease file another user wrote brings none (the
// passes, once a second, remove it). A burst of notifications is taken as one, a few
// milliseconds after it stops. What queued during the pass itself (mostly the
// pass's own commands) counts only as far as the kernel's state differs from
// what the pass built. Stop signals are let in while it waits; after one it
// returns when the stop's grace ends. Without sources it is Pause(milliseconds).
void AwaitNextPass(EVENT_WATCH& watch, CYCLE_STATE& state, unsigned int milliseconds);
