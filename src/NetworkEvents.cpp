// Waiting between passes on the kernel's notifications and the files' changes.
#include "src/NetworkEvents.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <signal.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>

#include "logging/Logging.h"
#include "src/NetworkClock.h"
#include "src/NetworkCycle.h"
#include "src/NetworkCycleShape.h"
#include "src/NetworkFilterWatch.h"
#include "src/NetworkNetlink.h"
#include "src/NetworkPending.h"
#include "src/NetworkRetry.h"
#include "src/NetworkStop.h"
#include "util/Format.h"

namespace {

// A burst (an editor's writes, a command's several notifications) is taken as
// one: the wait goes on until the sources have been quiet this long, and never
// longer than the second bound after the first.
constexpr int64_t kQuietMs = 10;
constexpr int64_t kBurstMaxMs = 30;

// The lease files the client's script puts in place (see tessel.script).
const char* const kLeaseNames[] = {"dhcp_veth1.txt", "dhcp_veth3.txt"};

const uint32_t kConfigMask = IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE | IN_DELETE;
const uint32_t kLeaseMask = IN_CLOSE_WRITE | IN_MOVED_TO;

// The owned link named `name` (`length` bytes at most, its end at a NUL or
// an address label's ':'), or -1.
int OwnedLinkNamed(const char* name, size_t length) {
    const size_t size = strnlen(name, length);
    const auto* colon = static_cast<const char*>(memchr(name, ':', size));
    const size_t end = colon == nullptr ? size : static_cast<size_t>(colon - name);
    for (size_t i = 0; i < kOwnedLinkCount; ++i) {
        if (strlen(kOwnedLinks[i]) == end && strncmp(name, kOwnedLinks[i], end) == 0) return static_cast<int>(i);
    }
    return -1;
}

bool OwnedIndex(const OWNED_LINKS* owned, int index) {
    if (owned == nullptr || index <= 0) return false;
    return std::find(std::begin(owned->m_indexes), std::end(owned->m_indexes), index) != std::end(owned->m_indexes);
}

// Whether a link message concerns an owned link: its name, its index (a link
// renamed or removed under another name), or br0 as its master (a port
// joining or leaving). The owned indexes follow what the message says.
bool OwnedLinkMessage(const nlmsghdr* header, OWNED_LINKS* owned) {
    if (header->nlmsg_len < NLMSG_LENGTH(sizeof(ifinfomsg))) return false;
    const auto* info = static_cast<const ifinfomsg*>(NLMSG_DATA(header));
    const NETLINK_ATTRIBUTES attributes = MessageAttributes(header, sizeof(ifinfomsg));
    const rtattr* name = FindAttribute(attributes, IFLA_IFNAME);
    const int named =
        name == nullptr ? -1 : OwnedLinkNamed(static_cast<const char*>(RTA_DATA(name)), RTA_PAYLOAD(name));
    bool ours = named >= 0 || OwnedIndex(owned, info->ifi_index);
    if (!ours) {
        const rtattr* master = FindAttribute(attributes, IFLA_MASTER);
        int index = 0;
        if (master != nullptr && RTA_PAYLOAD(master) >= sizeof(index)) memcpy(&index, RTA_DATA(master), sizeof(index));
        ours = OwnedIndex(owned, index);
    }
    if (owned != nullptr) {
        // The index no longer an owned link's (removed, renamed away), and a new owned link's.
        for (int& index : owned->m_indexes) {
            if (index == info->ifi_index) index = 0;
        }
        if (named >= 0 && header->nlmsg_type == RTM_NEWLINK) owned->m_indexes[named] = info->ifi_index;
    }
    return ours;
}

bool OwnedAddressMessage(const nlmsghdr* header, const OWNED_LINKS* owned) {
    if (header->nlmsg_len < NLMSG_LENGTH(sizeof(ifaddrmsg))) return false;
    const auto* info = static_cast<const ifaddrmsg*>(NLMSG_DATA(header));
    if (OwnedIndex(owned, static_cast<int>(info->ifa_index))) return true;
    const rtattr* label = FindAttribute(MessageAttributes(header, sizeof(ifaddrmsg)), IFA_LABEL);
    return label != nullptr && OwnedLinkNamed(static_cast<const char*>(RTA_DATA(label)), RTA_PAYLOAD(label)) >= 0;
}

// The shape holds the IPv4 default routes alone.
bool DefaultRouteMessage(const nlmsghdr* header) {
    if (header->nlmsg_len < NLMSG_LENGTH(sizeof(rtmsg))) return false;
    const auto* info = static_cast<const rtmsg*>(NLMSG_DATA(header));
    return info->rtm_family == AF_INET && info->rtm_dst_len == 0;
}

// Looks up each owned link's index, as the kernel has it now: asked as
// if_nametoindex asks, on one socket for all of them.
void LookUpOwnedLinks(OWNED_LINKS& owned) {
    const Util::UniqueFd query(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!query.IsOpen()) return;
    for (size_t i = 0; i < kOwnedLinkCount; ++i) {
        ifreq request{};
        strncpy(request.ifr_name, kOwnedLinks[i], IFNAMSIZ - 1);
        if (ioctl(query.Get(), SIOCGIFINDEX, &request) == 0 && request.ifr_ifindex > 0) {
            owned.m_indexes[i] = request.ifr_ifindex;
        }
    }
}

// Whether either lease file is there for the pass to take.
bool AnyLeaseTaken() {
    return std::any_of(std::begin(kLeaseNames), std::end(kLeaseNames), [](const char* name) {
        return LeaseFileTaken((std::string(kLeaseDirectory) + "/" + name).c_str());
    });
}

void NoteEth0(const nlmsghdr* header, EVENTS& events) {
    if (header->nlmsg_len < NLMSG_LENGTH(sizeof(ifinfomsg))) return;
    const auto* info = static_cast<const ifinfomsg*>(NLMSG_DATA(header));
    const rtattr* attribute = FindAttribute(MessageAttributes(header, sizeof(ifinfomsg)), IFLA_IFNAME);
    if (attribute == nullptr) return;
    const auto* name = static_cast<const char*>(RTA_DATA(attribute));
    if (strncmp(name, "eth0", RTA_PAYLOAD(attribute)) != 0 || RTA_PAYLOAD(attribute) < 5) return;
    events.m_bEth0Reported = true;
    const unsigned int running = IFF_UP | IFF_RUNNING;
    events.m_bEth0Running = header->nlmsg_type == RTM_NEWLINK && (info->ifi_flags & running) == running;
}

// Reads one source until it is empty (both are non-blocking). A datagram
// source's are read whole: one longer than the buffer (a link with many
// alternative names) is reported as EMSGSIZE, not parsed cut short.
template <typename Note>
void Drain(int fd, bool datagrams, Note note) {
    alignas(nlmsghdr) alignas(inotify_event) char buffer[8192];
    for (;;) {
        const ssize_t got = datagrams ? ReceiveWhole(fd, buffer, sizeof(buffer)) : read(fd, buffer, sizeof(buffer));
        if (got < 0 && errno == EMSGSIZE) {
            note(nullptr, 0, EMSGSIZE);
        } else if (got > 0) {
            note(buffer, static_cast<size_t>(got), 0);
        } else if (got < 0 && errno == ENOBUFS) {
            // The socket's queue overflowed: notifications were lost.
            note(nullptr, 0, ENOBUFS);
        } else if (got < 0 && errno == EINTR) {
            continue;
        } else {
            return;
        }
    }
}

void TakeInto(EVENT_WATCH& watch, EVENTS& events) {
    if (watch.m_kernel.IsOpen()) {
        // A notification lost or too long for the buffer: the look finds what it said.
        Drain(watch.m_kernel.Get(), true, [&watch, &events](const char* data, size_t length, int error) {
            if (error != 0) events.m_bKernelLost = true;
            if (data != nullptr) NoteKernelMessages(data, length, events, &watch.m_owned);
        });
        if (events.m_bLinkReported || events.m_bKernelLost) watch.m_bLinksReported = true;
    }
    if (watch.m_files.IsOpen()) {
        Drain(watch.m_files.Get(), false, [&watch, &events](const char* data, size_t length, int /*error*/) {
            if (data != nullptr) NoteFileEvents(watch, data, length, events);
        });
    }
    if (watch.m_nft.IsOpen()) {
        // Whatever it says (or lost) the look judges: the message itself is not read.
        Drain(watch.m_nft.Get(), true, [&events](const char*, size_t, int) { events.m_bNftCommitted = true; });
    }
}

// The sources as one epoll set, made at the first wait: registered once, so
// a wait costs no more than the sleep it replaces.
bool PollSet(EVENT_WATCH& watch) {
    if (watch.m_poll.IsOpen()) return true;
    Util::UniqueFd poll(epoll_create1(EPOLL_CLOEXEC));
    if (!poll.IsOpen()) return false;
    for (const Util::UniqueFd* source : {&watch.m_kernel, &watch.m_files, &watch.m_nft}) {
        if (!source->IsOpen()) continue;
        epoll_event interest{};
        interest.events = EPOLLIN;
        interest.data.fd = source->Get();
        if (epoll_ctl(poll.Get(), EPOLL_CTL_ADD, source->Get(), &interest) != 0) return false;
    }
    watch.m_poll = std::move(poll);
    return true;
}

// Waits until a source is readable, `untilMs` (steady) or a stop's grace ends.
// False when nothing came.
bool WaitReadable(EVENT_WATCH& watch, int64_t untilMs) {
    if (!PollSet(watch)) {
        // Without an epoll set (no descriptor left): the pause, which still lets the stop in.
        const int64_t leftMs = std::min(untilMs, StopGraceEndMs()) - SteadyMs();
        if (leftMs > 0) SleepLettingSignalsIn(static_cast<unsigned int>(leftMs));
        return false;
    }
    sigset_t none;
    sigemptyset(&none);
    for (;;) {
        const int64_t endMs = std::min(untilMs, StopGraceEndMs());
        const int64_t leftMs = endMs - SteadyMs();
        if (leftMs <= 0) return false;
        epoll_event ready[2];
        // The stop signals come in here, and only here or while a command runs.
        const int count = epoll_pwait(watch.m_poll.Get(), ready, 2, static_cast<int>(leftMs), &none);
        if (count > 0) return true;
        if (count < 0 && errno != EINTR) return false;
    }
}

// Waits for what comes until `untilMs`, the burst included; false when nothing came.
bool WaitForEvents(EVENT_WATCH& watch, int64_t untilMs, EVENTS& events) {
    events = EVENTS{};
    if (!WaitReadable(watch, untilMs)) return false;
    const int64_t firstMs = SteadyMs();
    do {
        TakeInto(watch, events);
    } while (WaitReadable(watch, std::min(SteadyMs() + kQuietMs, firstMs + kBurstMaxMs)));
    return true;
}

// What could not be followed, why (errno) and what the daemon does instead.
void CannotFollow(const char* what, const char* instead) {
    LOG_ENTRY(LOGGING_SEVERITY_WARN, false,
              Util::Format("Cannot follow changes of %s (%s); %s", what, strerror(errno), instead));
}

// The look lost kernel notifications bring; true when it found a change worth the pass.
bool LookForLostNotifications(EVENT_WATCH& watch, CYCLE_STATE& state) {
    watch.m_nLostLookDueMs = -1;
    watch.m_nLastLostLookMs = SteadyMs();
    return CheckForOutsideChanges(state);
}

// Notes a writer that has the configuration file open, or is done with it.
void NoteConfigWriting(const EVENTS& events, CYCLE_STATE& state) {
    if (events.m_bConfigWriting) {
        if (state.m_nConfigWritingSinceMs == 0) state.m_nConfigWritingSinceMs = MonotonicMs();
    } else if (events.m_bConfigWritten || events.m_bFilesLost) {
        // After lost notifications whether a writer still has it open is not known: the passes read it.
        state.m_nConfigWritingSinceMs = 0;
    }
}

// A commit to nf_tables while the two-port isolation is looked at: its look is
// due now, and the pass comes now, or at the end of the second after the last
// pass it brought (`untilMs` moved there). Whether anything the look judges
// moved is its own question (the tables' fingerprint).
bool NftLookDue(EVENT_WATCH& watch, CYCLE_STATE& state, int64_t& untilMs) {
    if (state.m_eLastBridgeMode != BRIDGE_MODE_ETH0ETH1 || state.m_bBridgeSetupPending) return false;
    ISOLATION_STATE& isolation = state.m_isolation;
    isolation.m_nNextCheckMs = std::min(isolation.m_nNextCheckMs, MonotonicMs());
    const int64_t nowMs = SteadyMs();
    if (watch.m_nLastNftWakeMs < 0 || nowMs - watch.m_nLastNftWakeMs >= kNftWakeSpacingMs) {
        watch.m_nLastNftWakeMs = nowMs;
        return true;
    }
    // The pass at the end of the spacing is the one this commit brings (and
    // any other before it).
    if (watch.m_nLastNftWakeMs <= nowMs) watch.m_nLastNftWakeMs += kNftWakeSpacingMs;
    untilMs = std::min(untilMs, watch.m_nLastNftWakeMs);
    return false;
}

}  // namespace

const char* const kOwnedLinks[kOwnedLinkCount] = {"br0", "eth0", "eth1", "veth0", "veth1", "veth2", "veth3"};

bool LeaseFileTaken(const char* path) {
    struct stat status {};
    if (fstatat(AT_FDCWD, path, &status, AT_SYMLINK_NOFOLLOW) != 0) return false;
    return S_ISREG(status.st_mode) && status.st_uid == geteuid() && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0 &&
           status.st_nlink == 1;
}

EVENT_WATCH OpenEventWatch(const std::string& configPath) {
    EVENT_WATCH watch;
    watch.m_kernel = OpenRouteSocket(RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE, 0);
    if (!watch.m_kernel.IsOpen())
        CannotFollow("the kernel's links, addresses and routes", "looking once a second only");

    const size_t slash = configPath.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : slash == 0 ? "/" : configPath.substr(0, slash);
    watch.m_configName = slash == std::string::npos ? configPath : configPath.substr(slash + 1);
    watch.m_pendingName = PendingRecordPath(watch.m_configName);
    watch.m_files.Reset(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (watch.m_files.IsOpen()) {
        watch.m_nConfigWatch = inotify_add_watch(watch.m_files.Get(), directory.c_str(), kConfigMask | IN_ONLYDIR);
    }
    if (watch.m_nConfigWatch < 0) CannotFollow(directory.c_str(), "reading the configuration once a second only");
    if (watch.m_files.IsOpen()) {
        // Where the configuration sits in the same directory, one watch serves both, with both masks.
        const uint32_t mask = directory == kLeaseDirectory ? kConfigMask | kLeaseMask : kLeaseMask;
        watch.m_nLeaseWatch = inotify_add_watch(watch.m_files.Get(), kLeaseDirectory, mask | IN_ONLYDIR);
    }
    if (watch.m_nLeaseWatch < 0) CannotFollow(kLeaseDirectory, "looking for leases once a second only");
    if (watch.m_nConfigWatch < 0 && watch.m_nLeaseWatch < 0) watch.m_files.Reset();
    // No message where it cannot be had: the isolation's look is then periodic, as on the legacy tables.
    watch.m_nft = OpenFilterChangeSocket();
    return watch;
}

void NoteKernelMessages(const char* data, size_t length, EVENTS& events, OWNED_LINKS* owned) {
    ForEachMessage(data, length, [&events, owned](const nlmsghdr* header) {
        switch (header->nlmsg_type) {
            case RTM_NEWLINK:
            case RTM_DELLINK:
                if (OwnedLinkMessage(header, owned)) events.m_bKernel = events.m_bLinkReported = true;
                NoteEth0(header, events);
                break;
            case RTM_NEWADDR:
            case RTM_DELADDR:
                if (OwnedAddressMessage(header, owned)) events.m_bKernel = true;
                break;
            case RTM_NEWROUTE:
            case RTM_DELROUTE:
                if (DefaultRouteMessage(header)) events.m_bKernel = true;
                break;
            default:
                break;
        }
        return true;
    });
}

void NoteFileEvents(const EVENT_WATCH& watch, const char* data, size_t length, EVENTS& events) {
    size_t offset = 0;
    while (offset + sizeof(inotify_event) <= length) {
        inotify_event record{};
        memcpy(&record, data + offset, sizeof(record));
        const size_t size = sizeof(inotify_event) + record.len;
        if (offset + size > length) break;
        const char* name = data + offset + sizeof(inotify_event);
        const std::string entry(name, strnlen(name, record.len));
        offset += size;
        // The queue overflowed: anything may have happened to the files; the
        // wait looks at them once for the whole batch.
        if ((record.mask & IN_Q_OVERFLOW) != 0) {
            events.m_bConfigWriting = false;
            events.m_bFilesLost = true;
            continue;
        }
        if (record.wd == watch.m_nConfigWatch && entry == watch.m_pendingName) events.m_bRecordChanged = true;
        if (record.wd == watch.m_nConfigWatch && entry == watch.m_configName) {
            if ((record.mask & (IN_MODIFY | IN_CREATE)) != 0) {
                events.m_bConfigWriting = true;
            } else {
                events.m_bConfigWritten = true;
                events.m_bConfigWriting = false;
            }
        }
        if (record.wd == watch.m_nLeaseWatch && (record.mask & kLeaseMask) != 0 &&
            std::any_of(std::begin(kLeaseNames), std::end(kLeaseNames),
                        [&entry](const char* lease) { return entry == lease; }) &&
            LeaseFileTaken((std::string(kLeaseDirectory) + "/" + entry).c_str())) {
            // One another user wrote is no news: the next pass removes it unread.
            events.m_bLeaseWritten = true;
        }
    }
}

EVENTS TakeEvents(EVENT_WATCH& watch) {
    EVENTS events;
    TakeInto(watch, events);
    return events;
}

void AwaitNextPass(EVENT_WATCH& watch, CYCLE_STATE& state, unsigned int milliseconds) {
    if (!watch.m_kernel.IsOpen() && !watch.m_files.IsOpen()) {
        Pause(milliseconds);
        return;
    }
    int64_t untilMs = SteadyMs() + milliseconds;
    bool fileWakeHeld = false;
    LookUpOwnedLinks(watch.m_owned);
    // What queued during the pass makes the sources readable at once, and is
    // taken as any news is: no read at all when nothing came. eth0's last
    // report counts then too: the pass's own bounce comes only after it found
    // the link down, and a build's before it queried the link, so a link lost
    // after the query is a loss, however early it came.
    EVENTS events;
    for (;;) {
        const int64_t dueMs = watch.m_nLostLookDueMs;
        if (!WaitForEvents(watch, dueMs < 0 ? untilMs : std::min(untilMs, dueMs), events)) {
            // The look lost notifications owe, when its time has come; else the
            // pass (the debt is kept for the next wait).
            if (dueMs < 0 || SteadyMs() < dueMs || StopRequested()) break;
            if (LookForLostNotifications(watch, state)) return;
            continue;
        }
        NoteConfigWriting(events, state);
        if (events.m_bRecordChanged || events.m_bFilesLost) watch.m_bPendingLookDue = true;
        if (events.m_bKernel) {
            // The look reads everything: what was lost meanwhile included.
            watch.m_nLostLookDueMs = -1;
            if (CheckForOutsideChanges(state)) return;
        } else if (events.m_bKernelLost) {
            // Overflows come in storms (of links the daemon does not own, most
            // likely): one look a second finds whatever they hid.
            const int64_t nowMs = SteadyMs();
            if (watch.m_nLastLostLookMs < 0 || nowMs - watch.m_nLastLostLookMs >= kFileWakeSpacingMs) {
                if (LookForLostNotifications(watch, state)) return;
            } else if (watch.m_nLostLookDueMs < 0) {
                watch.m_nLostLookDueMs = watch.m_nLastLostLookMs + kFileWakeSpacingMs;
            }
        }
        if (events.m_bEth0Reported && state.m_bEth0LinkUp && !events.m_bEth0Running) return;
        // Only the daemon's own user can put a lease it takes in place: no one else drives these.
        if (events.m_bLeaseWritten) return;
        if (events.m_bNftCommitted && NftLookDue(watch, state, untilMs)) return;
        // The configuration's writes, and lost notifications with a lease to
        // take, come early once a second at most: the passes read the
        // configuration anyway, and take a lease, once a second.
        if (events.m_bConfigWritten || (events.m_bFilesLost && AnyLeaseTaken())) {
            const int64_t nowMs = SteadyMs();
            if (watch.m_nLastFileWakeMs < 0 || nowMs - watch.m_nLastFileWakeMs >= kFileWakeSpacingMs) {
                watch.m_nLastFileWakeMs = nowMs;
                return;
            }
            const int64_t heldUntilMs = watch.m_nLastFileWakeMs + kFileWakeSpacingMs;
            if (heldUntilMs < untilMs) {
                untilMs = heldUntilMs;
                fileWakeHeld = true;
            }
        }
    }
    // The pass a held configuration write brought before the second was over is one the files brought early.
    if (fileWakeHeld) watch.m_nLastFileWakeMs = SteadyMs();
}
