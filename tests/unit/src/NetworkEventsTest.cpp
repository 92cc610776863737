// What the daemon waits on between passes: recorded kernel notifications and
// real file notifications, and when they bring the next pass (AwaitNextPass),
// each compared as the whole timeline of what the wait logged and ran.
#include "src/NetworkClock.h"
#include "src/NetworkConfig.h"
#include "src/NetworkCycle.h"
#include "src/NetworkEvents.h"
#include "src/NetworkRetry.h"
#include "src/NetworkStop.h"
#include "tests/support/CommandRecorder.h"
#include "tests/support/KernelCommandLine.h"
#include "tests/support/KernelShapes.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Namespaces.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

EVENTS Noted(const std::vector<std::string>& datagrams) {
    EVENTS events;
    for (const std::string& datagram : datagrams) NoteKernelMessages(datagram.data(), datagram.size(), events);
    return events;
}

TEST(KernelNotificationsTest, RecordedNotificationsSayWhatChanged) {
    const std::vector<std::string> removed = ReadKernelEvents("kernel-br0-removed.hex");
    ASSERT_FALSE(removed.empty());
    EVENTS events = Noted(removed);
    EXPECT_TRUE(events.m_bKernel);
    EXPECT_FALSE(events.m_bEth0Reported);

    events = Noted(ReadKernelEvents("kernel-eth0-lost.hex"));
    EXPECT_TRUE(events.m_bKernel);
    EXPECT_TRUE(events.m_bEth0Reported);
    EXPECT_FALSE(events.m_bEth0Running);

    events = Noted(ReadKernelEvents("kernel-veth3-flushed.hex"));
    EXPECT_TRUE(events.m_bKernel);
    EXPECT_FALSE(events.m_bEth0Reported);

    // The build brings eth0 up with its cable: the last word on it is "running".
    events = Noted(ReadKernelEvents("kernel-build-burst.hex"));
    EXPECT_TRUE(events.m_bKernel);
    EXPECT_TRUE(events.m_bEth0Reported);
    EXPECT_FALSE(events.m_bConfigWritten || events.m_bLeaseWritten);

    // Cut short or garbled input is read no further than it holds.
    const std::string& first = removed.front();
    EVENTS cut;
    NoteKernelMessages(first.data(), 10, cut);
    EXPECT_FALSE(cut.m_bKernel);
}

// The state after a two-port build and the addressing of WholeTwoPortShape.
CYCLE_STATE BuiltTwoPortState() {
    CYCLE_STATE state;
    state.m_bConfigRead = true;
    state.m_bConfigUsable = true;
    state.m_bFirstCycle = false;
    state.m_bBridgeSetupPending = false;
    state.m_bPhyModePending = false;
    state.m_bRegisterWritesPending = false;
    state.m_eLastBridgeMode = BRIDGE_MODE_ETH0ETH1;
    state.m_settings.m_eBridgeMode = BRIDGE_MODE_ETH0ETH1;
    state.m_veth1Mac = kTestVeth1Mac;
    state.m_veth1.m_bReconfigure = false;
    state.m_veth1.m_applied = {false, Address("192.168.1.2"), Address("255.255.255.0"), Address("192.168.1.1")};
    state.m_veth3.m_bReconfigure = false;
    state.m_veth3.m_applied = {false, Address("192.168.100.1"), Address("255.255.255.0"), Address("0.0.0.0")};
    return state;
}

// A watch whose kernel side is a socket the test writes recorded notifications to.
struct RecordedKernel {
    RecordedKernel() {
        int ends[2] = {-1, -1};
        if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) ADD_FAILURE() << "socketpair";
        m_watch.m_kernel.Reset(ends[0]);
        m_sender.Reset(ends[1]);
    }
    void Send(const std::vector<std::string>& datagrams) {
        for (const std::string& datagram : datagrams) {
            EXPECT_EQ(send(m_sender.Get(), datagram.data(), datagram.size(), 0), static_cast<ssize_t>(datagram.size()));
        }
    }
    // Sends them from another thread after `delayMs`, one every `spacingMs`.
    std::thread SendLater(std::vector<std::string> datagrams, int delayMs, int spacingMs = 0) {
        return std::thread([this, datagrams, delayMs, spacingMs] {
            std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
            for (const std::string& datagram : datagrams) {
                send(m_sender.Get(), datagram.data(), datagram.size(), 0);
                if (spacingMs != 0) std::this_thread::sleep_for(std::chrono::milliseconds(spacingMs));
            }
        });
    }

    EVENT_WATCH m_watch;
    Util::UniqueFd m_sender;
};

// How long AwaitNextPass took, in ms.
int64_t TimedWait(EVENT_WATCH& watch, CYCLE_STATE& state, unsigned int milliseconds) {
    const int64_t startMs = SteadyMs();
    AwaitNextPass(watch, state, milliseconds);
    return SteadyMs() - startMs;
}

// The wait after a two-port build: the test's command line, log and commands,
// the kernel as a script shows it, and recorded notifications as its source.
class AwaitAfterABuildTest : public ::testing::Test {
protected:
    KernelCommandLine cmdline{"console=ttyS0 mac=02:00:00:00:77:01 quiet\n"};
    LogCapture log;
    CommandRecorder commands;
    KernelShapeScript kernel;
    RecordedKernel recorded;
    CYCLE_STATE state = BuiltTwoPortState();
};

TEST_F(AwaitAfterABuildTest, ThePassesOwnNotificationsBringOneLookAndNoPass) {
    // Queued while the pass ran its commands.
    recorded.Send(ReadKernelEvents("kernel-build-burst.hex"));
    const int64_t tookMs = TimedWait(recorded.m_watch, state, 400);
    EXPECT_GE(tookMs, 400);
    EXPECT_EQ(kernel.m_nReads, 1);
    EXPECT_EQ(log.Timeline(), Lines{});
    EXPECT_FALSE(state.m_bBridgeSetupPending);
}

TEST_F(AwaitAfterABuildTest, ABridgeRemovedFromOutsideBringsThePassAtOnce) {
    kernel.Show(WithoutLink(WholeTwoPortShape(), "br0"));
    std::thread outside = recorded.SendLater(ReadKernelEvents("kernel-br0-removed.hex"), 100);
    const int64_t tookMs = TimedWait(recorded.m_watch, state, 5000);
    outside.join();
    // 100 ms, the burst's quiet time, the look; far from the backstop's 5 s.
    EXPECT_GE(tookMs, 100);
    EXPECT_LT(tookMs, 2500);
    EXPECT_EQ(kernel.m_nReads, 1);
    EXPECT_EQ(log.Timeline(), Lines{"WARN CheckForOutsideChanges: br0 was removed; rebuilding the bridge"});
    EXPECT_TRUE(state.m_bBridgeSetupPending);
    EXPECT_EQ(state.m_bridgeHealth.m_nUndone, 1U);
    EXPECT_EQ(state.m_bridgeHealth.m_lastUndone, "br0 was removed");
    EXPECT_TRUE(WorkDue(state.m_bridgeHealth));
}

TEST_F(AwaitAfterABuildTest, ANotificationLongerThanTheBufferStillBringsALook) {
    kernel.Show(WithoutLink(WholeTwoPortShape(), "br0"));
    // The removal of a link with many alternative names: 10,460 bytes, more
    // than the 8 KiB the wait reads a notification into.
    std::string removal = ReadKernelEvents("kernel-br0-removed.hex").front();
    auto* header = reinterpret_cast<nlmsghdr*>(removal.data());
    removal.resize(header->nlmsg_len);
    removal.append(10460 - removal.size(), '\0');
    header = reinterpret_cast<nlmsghdr*>(removal.data());
    header->nlmsg_len = static_cast<uint32_t>(removal.size());
    recorded.Send({removal});
    const int64_t tookMs = TimedWait(recorded.m_watch, state, 5000);
    EXPECT_LT(tookMs, 2500);
    EXPECT_EQ(kernel.m_nReads, 1);
    EXPECT_EQ(log.Timeline(), Lines{"WARN CheckForOutsideChanges: br0 was removed; rebuilding the bridge"});
    EXPECT_TRUE(state.m_bBridgeSetupPending);
}

TEST_F(AwaitAfterABuildTest, AnAddressRemovedFromOutsideSetsTheInterfaceUpAgain) {
    kernel.m_shape.m_addresses.pop_back();
    recorded.Send(ReadKernelEvents("kernel-veth3-flushed.hex"));
    std::thread outside = recorded.SendLater(ReadKernelEvents("kernel-veth3-flushed.hex"), 50);
    const int64_t tookMs = TimedWait(recorded.m_watch, state, 5000);
    outside.join();
    EXPECT_LT(tookMs, 2500);
    // Found by the look after the pass already: the pass comes at once.
    EXPECT_EQ(
        log.Timeline(),
        Lines{"WARN CheckForOutsideChanges: veth3's address 192.168.100.1/24 was removed; setting up veth3 again"});
    EXPECT_TRUE(state.m_veth3.m_bReconfigure);
    EXPECT_FALSE(state.m_veth1.m_bReconfigure);
    EXPECT_FALSE(state.m_bBridgeSetupPending);
}

TEST_F(AwaitAfterABuildTest, Eth0OutOfBr0BringsThePassOnlyWhileItsLinkIsUp) {
    KERNEL_SHAPE detached = WholeTwoPortShape();
    detached.m_links[1].m_nMaster = 0;
    kernel.Show(detached);
    // Its link down (the cable pulled): the recovery's bounces report it every
    // pass, and the pass would not put it back; no news, no pass.
    state.m_bEth0LinkUp = false;
    recorded.Send(ReadKernelEvents("kernel-eth0-lost.hex"));
    EXPECT_GE(TimedWait(recorded.m_watch, state, 600), 600);
    EXPECT_EQ(log.Timeline(), Lines{});
    // Up: the next pass puts it back, at once.
    state.m_bEth0LinkUp = true;
    recorded.Send(ReadKernelEvents("kernel-br0-removed.hex"));
    EXPECT_LT(TimedWait(recorded.m_watch, state, 5000), 2500);
    EXPECT_EQ(log.Timeline(), Lines{"WARN CheckForOutsideChanges: eth0 was taken out of br0; putting it back"});
    EXPECT_FALSE(state.m_bBridgeSetupPending);
}

TEST_F(AwaitAfterABuildTest, ABurstDuringTheWaitIsOneLook) {
    // 33 notifications over about 33 ms, as a build's commands bring them.
    std::thread burst = recorded.SendLater(ReadKernelEvents("kernel-build-burst.hex"), 100, 1);
    const int64_t tookMs = TimedWait(recorded.m_watch, state, 1500);
    burst.join();
    EXPECT_GE(tookMs, 1500);
    // Taken in as few looks as the burst's gaps allow: never one a notification.
    EXPECT_GE(kernel.m_nReads, 1);
    EXPECT_LE(kernel.m_nReads, 3);
    EXPECT_EQ(log.Timeline(), Lines{});
}

TEST(AwaitNextPassTest, Eth0LostBringsThePassOnlyWhenItWasUp) {
    LogCapture log;
    KernelShapeScript kernel;
    RecordedKernel recorded;
    CYCLE_STATE state = BuiltTwoPortState();
    state.m_bEth0LinkUp = true;
    std::thread lost = recorded.SendLater(ReadKernelEvents("kernel-eth0-lost.hex"), 100);
    int64_t tookMs = TimedWait(recorded.m_watch, state, 5000);
    lost.join();
    EXPECT_LT(tookMs, 2500);
    // The pass that follows finds it down and recovers it; nothing is logged before.
    EXPECT_EQ(log.Timeline(), Lines{});

    // Already known down (a pass bounced it): the report is no news.
    state.m_bEth0LinkUp = false;
    lost = recorded.SendLater(ReadKernelEvents("kernel-eth0-lost.hex"), 100);
    tookMs = TimedWait(recorded.m_watch, state, 600);
    lost.join();
    EXPECT_GE(tookMs, 600);

    // Queued during a pass that found it up: lost after the pass's query, so at once.
    state.m_bEth0LinkUp = true;
    recorded.Send(ReadKernelEvents("kernel-eth0-lost.hex"));
    tookMs = TimedWait(recorded.m_watch, state, 5000);
    EXPECT_LT(tookMs, 2500);
    // Queued during a pass that found it down and bounced it: its own bounce.
    state.m_bEth0LinkUp = false;
    recorded.Send(ReadKernelEvents("kernel-eth0-lost.hex"));
    tookMs = TimedWait(recorded.m_watch, state, 600);
    EXPECT_GE(tookMs, 600);
}

TEST(AwaitNextPassTest, ACommitToNfTablesMakesTheIsolationsLookDueOneExtraPassASecondAtMost) {
    LogCapture log;
    KernelShapeScript kernel;
    RecordedKernel recorded;
    int ends[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    recorded.m_watch.m_nft.Reset(ends[0]);
    const Util::UniqueFd commits(ends[1]);
    CYCLE_STATE state = BuiltTwoPortState();
    // The next periodic look 10 s away: a commit brings it now, with the pass.
    state.m_isolation.m_nNextCheckMs = MonotonicMs() + 10000;
    std::thread commit([&commits] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        send(commits.Get(), "x", 1, 0);
    });
    int64_t tookMs = TimedWait(recorded.m_watch, state, 5000);
    commit.join();
    EXPECT_LT(tookMs, 2500);
    EXPECT_LE(state.m_isolation.m_nNextCheckMs, MonotonicMs());
    // Another commit right after that pass: its pass at the end of the second.
    state.m_isolation.m_nNextCheckMs = MonotonicMs() + 10000;
    send(commits.Get(), "x", 1, 0);
    tookMs = TimedWait(recorded.m_watch, state, 5000);
    EXPECT_GE(tookMs, 300);  // held, not at once (a burst is 30 ms at most)
    EXPECT_LT(tookMs, 2500);
    EXPECT_LE(state.m_isolation.m_nNextCheckMs, MonotonicMs());
    // Outside the two-port mode no isolation is looked at: no news.
    state.m_eLastBridgeMode = BRIDGE_MODE_ETH0;
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    send(commits.Get(), "x", 1, 0);
    EXPECT_GE(TimedWait(recorded.m_watch, state, 600), 600);
    EXPECT_EQ(log.Timeline(), Lines{});
}

void OnStopSignal(int /*sig*/) { RequestStop(); }

TEST(AwaitNextPassTest, AStopSignalEndsTheWaitWhenItsGraceEnds) {
    // In a child of its own: the stop handler and the request stay there.
    Lines lines = InNewNamespaces(0, [] {
        InstallStopHandler(OnStopSignal);
        BlockStopSignals();
        RecordedKernel recorded;
        CYCLE_STATE state = BuiltTwoPortState();
        // Started with the stop signals blocked, as the daemon's one thread has
        // them: only the wait lets them in.
        std::thread stop([] {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            kill(getpid(), SIGTERM);
        });
        const int64_t tookMs = TimedWait(recorded.m_watch, state, 30000);
        stop.join();
        // The grace is a second; well within the 3 s a stop may take.
        return Lines{tookMs >= 1000 && tookMs < 3000 ? "ended after the grace" : "took " + std::to_string(tookMs)};
    });
    EXPECT_EQ(lines, Lines{"ended after the grace"});
}

TEST(AwaitNextPassTest, WithoutSourcesItIsThePause) {
    PauseRecorder pauses;
    EVENT_WATCH none;
    CYCLE_STATE state;
    AwaitNextPass(none, state, 1000);
    EXPECT_EQ(pauses.Pauses(), std::vector<unsigned int>{1000});
}

bool WriteText(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    return static_cast<bool>(out);
}

std::string Said(const EVENTS& events) {
    std::string text;
    if (events.m_bConfigWritten) text += "written ";
    if (events.m_bConfigWriting) text += "writing ";
    if (events.m_bLeaseWritten) text += "lease ";
    return text.empty() ? "nothing" : text.substr(0, text.size() - 1);
}

TEST(FileNotificationsTest, TheConfigurationClosedOrPutInPlaceAndTheLeaseFiles) {
    TESSEL_NEED_NAMESPACES();
    Lines lines = InNewNamespaces(CLONE_NEWNET | CLONE_NEWNS, [] {
        if (mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0) return Lines{"cannot mount /tmp"};
        if (mkdir("/tmp/etc", 0755) != 0) return Lines{"cannot make /tmp/etc"};
        LogCapture log;
        EVENT_WATCH watch = OpenEventWatch("/tmp/etc/networkd.conf");
        Lines seen;
        auto note = [&](const std::string& what) { seen.push_back(what + ": " + Said(TakeEvents(watch))); };
        WriteText("/tmp/etc/networkd.conf", "bridge eth0\n");
        note("written and closed");
        FILE* writer = fopen("/tmp/etc/networkd.conf", "a");
        fputs("veth3 static 192.168.100.25 255.255.255.0 192.168.1", writer);
        fflush(writer);
        note("half a line, still open");
        fputs("00.1\n", writer);
        fclose(writer);
        note("closed");
        WriteText("/tmp/etc/.networkd.conf.new", "bridge eth1\n");
        note("another file");
        rename("/tmp/etc/.networkd.conf.new", "/tmp/etc/networkd.conf");
        note("renamed into place");
        WriteText("/tmp/part", "veth1 192.168.77.100 255.255.255.0\n");
        rename("/tmp/part", "/tmp/dhcp_veth1.txt");
        note("veth1's lease put in place");
        WriteText("/tmp/dhcp_veth3.txt", "veth3 192.168.100.7 255.255.255.0\n");
        note("veth3's lease written");
        WriteText("/tmp/dhcp_veth9.txt", "x\n");
        note("no interface of the daemon's");
        seen.push_back(log.Timeline().empty() ? "nothing logged" : log.Timeline().front());
        return seen;
    });
    EXPECT_EQ(lines,
              (Lines{"written and closed: written", "half a line, still open: writing", "closed: written",
                     "another file: nothing", "renamed into place: written", "veth1's lease put in place: lease",
                     "veth3's lease written: lease", "no interface of the daemon's: nothing", "nothing logged"}));
}

TEST(FileNotificationsTest, AConfigurationBeingWrittenIsLeftAloneUntilItsWriterCloses) {
    TESSEL_NEED_NAMESPACES();
    Lines lines = InNewNamespaces(CLONE_NEWNET | CLONE_NEWNS, [] {
        if (mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0) return Lines{"cannot mount /tmp"};
        LogCapture log;
        KernelShapeScript kernel;
        EVENT_WATCH watch = OpenEventWatch("/tmp/networkd.conf");
        CYCLE_STATE state = BuiltTwoPortState();
        Lines seen;
        FILE* writer = fopen("/tmp/networkd.conf", "w");
        std::thread partly([writer] {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            fputs("bridge eth0eth1\nveth3 static 192.168.100.25 255.255.255.0 192.168.1", writer);
            fflush(writer);
        });
        int64_t tookMs = TimedWait(watch, state, 800);
        partly.join();
        seen.push_back(tookMs >= 800 ? "not taken early" : "taken early");
        seen.push_back(state.m_nConfigWritingSinceMs != 0 ? "being written" : "not being written");
        std::thread done([writer] {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            fputs("00.1\n", writer);
            fclose(writer);
        });
        tookMs = TimedWait(watch, state, 5000);
        done.join();
        seen.push_back(tookMs < 2500 ? "taken once closed" : "not taken once closed");
        seen.push_back(state.m_nConfigWritingSinceMs != 0 ? "being written" : "not being written");
        seen.push_back(std::to_string(kernel.m_nReads) + " looks at the kernel");
        Lines timeline = log.Timeline();
        seen.insert(seen.end(), timeline.begin(), timeline.end());
        return seen;
    });
    EXPECT_EQ(lines, (Lines{"not taken early", "being written", "taken once closed", "not being written",
                            "0 looks at the kernel"}));
}

// A notification of `type` with `fixed` as its fixed part and `attributes` after it.
template <typename Fixed>
std::string Notification(uint16_t type, const Fixed& fixed, const std::string& attributes = "") {
    nlmsghdr header{};
    header.nlmsg_type = type;
    header.nlmsg_len = static_cast<uint32_t>(NLMSG_LENGTH(sizeof(Fixed)) + attributes.size());
    std::string bytes(reinterpret_cast<const char*>(&header), sizeof(header));
    bytes.append(reinterpret_cast<const char*>(&fixed), sizeof(fixed));
    bytes.resize(NLMSG_LENGTH(sizeof(Fixed)), '\0');
    bytes += attributes;
    bytes.resize(NLMSG_ALIGN(bytes.size()), '\0');
    return bytes;
}

std::string Attribute(uint16_t type, const std::string& payload) {
    rtattr header{};
    header.rta_type = type;
    header.rta_len = static_cast<uint16_t>(RTA_LENGTH(payload.size()));
    std::string bytes(reinterpret_cast<const char*>(&header), sizeof(header));
    bytes += payload;
    bytes.resize(RTA_SPACE(payload.size()), '\0');
    return bytes;
}

std::string Name(const std::string& name) { return Attribute(IFLA_IFNAME, name + std::string(1, '\0')); }

std::string Index(int index) { return std::string(reinterpret_cast<const char*>(&index), sizeof(index)); }

// A link's report: up (and running) or down, with its master's index when it has one.
std::string LinkReport(uint16_t type, int index, const std::string& name, bool up, int master = 0) {
    ifinfomsg info{};
    info.ifi_index = index;
    info.ifi_flags = up ? IFF_UP | IFF_RUNNING : 0;
    return Notification(type, info, Name(name) + (master != 0 ? Attribute(IFLA_MASTER, Index(master)) : ""));
}

std::string AddressReport(uint16_t type, int index, const std::string& label) {
    ifaddrmsg info{};
    info.ifa_family = AF_INET;
    info.ifa_prefixlen = 24;
    info.ifa_index = static_cast<uint32_t>(index);
    return Notification(type, info, Attribute(IFA_LABEL, label + std::string(1, '\0')));
}

std::string RouteReport(uint16_t type, unsigned char destinationLength, int index) {
    rtmsg info{};
    info.rtm_family = AF_INET;
    info.rtm_dst_len = destinationLength;
    info.rtm_table = RT_TABLE_MAIN;
    return Notification(type, info, Attribute(RTA_OIF, Index(index)));
}

// A link the daemon does not own going down and up, `flaps` times.
std::vector<std::string> ForeignFlaps(int flaps) {
    std::vector<std::string> datagrams;
    datagrams.reserve(static_cast<size_t>(flaps));
    for (int i = 0; i < flaps; ++i) datagrams.push_back(LinkReport(RTM_NEWLINK, 4242, "dummy7", i % 2 == 1));
    return datagrams;
}

TEST(KernelNotificationsTest, OnlyTheOwnedLinksAndTheDefaultRoutesAreNews) {
    OWNED_LINKS owned;
    owned.m_indexes[0] = 40;  // br0
    owned.m_indexes[6] = 46;  // veth3
    auto said = [&owned](const std::string& datagram) {
        EVENTS events;
        NoteKernelMessages(datagram.data(), datagram.size(), events, &owned);
        return events.m_bKernel;
    };
    EXPECT_FALSE(said(LinkReport(RTM_NEWLINK, 4242, "dummy7", false)));
    EXPECT_FALSE(said(LinkReport(RTM_DELLINK, 4242, "dummy7", false)));
    EXPECT_FALSE(said(LinkReport(RTM_NEWLINK, 4243, "veth10", true)));
    EXPECT_FALSE(said(AddressReport(RTM_NEWADDR, 4242, "dummy7")));
    EXPECT_FALSE(said(AddressReport(RTM_DELADDR, 4242, "dummy7:1")));
    EXPECT_FALSE(said(RouteReport(RTM_NEWROUTE, 24, 4242)));
    EXPECT_TRUE(said(LinkReport(RTM_NEWLINK, 41, "eth0", true)));
    EXPECT_TRUE(said(LinkReport(RTM_DELLINK, 45, "veth2", false)));
    EXPECT_TRUE(said(AddressReport(RTM_DELADDR, 46, "veth3")));
    EXPECT_TRUE(said(AddressReport(RTM_DELADDR, 999, "veth1:0")));
    EXPECT_TRUE(said(RouteReport(RTM_DELROUTE, 0, 4242)));
    // A link of another's joining br0 is a change of br0.
    EXPECT_TRUE(said(LinkReport(RTM_NEWLINK, 4242, "dummy7", true, 40)));
    // veth3 renamed: known by its index, and no longer owned after.
    EXPECT_TRUE(said(LinkReport(RTM_NEWLINK, 46, "spare3", true)));
    EXPECT_FALSE(said(LinkReport(RTM_NEWLINK, 46, "spare3", false)));
    // A new veth3 is known by its index from its first report on.
    EXPECT_TRUE(said(LinkReport(RTM_NEWLINK, 47, "veth3", true)));
    EXPECT_TRUE(said(AddressReport(RTM_NEWADDR, 47, "")));
}

TEST(KernelNotificationsTest, AReportOfAnOwnedLinkIsOneOfALink) {
    OWNED_LINKS owned;
    owned.m_indexes[6] = 46;  // veth3
    auto reported = [&owned](const std::string& datagram) {
        EVENTS events;
        NoteKernelMessages(datagram.data(), datagram.size(), events, &owned);
        return events.m_bLinkReported;
    };
    EXPECT_TRUE(reported(LinkReport(RTM_NEWLINK, 42, "eth1", false)));
    EXPECT_TRUE(reported(LinkReport(RTM_DELLINK, 42, "eth1", false)));
    EXPECT_TRUE(reported(LinkReport(RTM_NEWLINK, 46, "spare3", true)));
    EXPECT_FALSE(reported(LinkReport(RTM_NEWLINK, 4242, "dummy7", false)));
    EXPECT_FALSE(reported(AddressReport(RTM_DELADDR, 46, "veth3")));
    EXPECT_FALSE(reported(RouteReport(RTM_DELROUTE, 0, 4242)));
}

TEST_F(AwaitAfterABuildTest, AStormOfAnotherLinksReportsBringsNoLookAndNoPass) {
    // 2000 flaps of a link the daemon does not own, over about a second.
    recorded.m_watch.m_bLinksReported = false;
    std::thread storm = recorded.SendLater(ForeignFlaps(2000), 50);
    const int64_t tookMs = TimedWait(recorded.m_watch, state, 1500);
    storm.join();
    EXPECT_GE(tookMs, 1500);
    EXPECT_EQ(kernel.m_nReads, 0);
    EXPECT_EQ(log.Timeline(), Lines{});
    // Nor a read of eth1's link for the status.
    EXPECT_FALSE(recorded.m_watch.m_bLinksReported);
    // Among them, one report of an owned link is one look.
    kernel.Show(WithoutLink(WholeTwoPortShape(), "br0"));
    std::vector<std::string> mixed = ForeignFlaps(200);
    mixed.insert(mixed.begin() + 100, ReadKernelEvents("kernel-br0-removed.hex").front());
    storm = recorded.SendLater(mixed, 50);
    EXPECT_LT(TimedWait(recorded.m_watch, state, 5000), 2500);
    storm.join();
    EXPECT_EQ(kernel.m_nReads, 1);
    EXPECT_EQ(log.Timeline(), Lines{"WARN CheckForOutsideChanges: br0 was removed; rebuilding the bridge"});
    EXPECT_TRUE(recorded.m_watch.m_bLinksReported);
}

// A notification longer than the 8 KiB the wait reads one into: lost to it,
// as an overflow's are.
std::string TooLong(std::string datagram) {
    auto* header = reinterpret_cast<nlmsghdr*>(datagram.data());
    datagram.resize(header->nlmsg_len);
    datagram.append(10460 - datagram.size(), '\0');
    header = reinterpret_cast<nlmsghdr*>(datagram.data());
    header->nlmsg_len = static_cast<uint32_t>(datagram.size());
    return datagram;
}

TEST_F(AwaitAfterABuildTest, LostNotificationsBringOneLookASecondAndTheLookTheyOweComes) {
    // A storm of notifications the wait cannot read, one every 5 ms for 3 s:
    // a look each second, not one per burst, and no pass.
    std::vector<std::string> storm(600, TooLong(LinkReport(RTM_NEWLINK, 4242, "dummy7", true)));
    std::thread sender = recorded.SendLater(storm, 0, 5);
    const int64_t startMs = SteadyMs();
    int passes = 0;
    while (SteadyMs() - startMs < 3000) {
        AwaitNextPass(recorded.m_watch, state, 1000);
        ++passes;
    }
    sender.join();
    EXPECT_LE(passes, 4);
    EXPECT_GE(kernel.m_nReads, 2);
    EXPECT_LE(kernel.m_nReads, 5);
    EXPECT_EQ(log.Timeline(), Lines{});

    // br0 removed under the cover of a lost notification that came within a
    // second of the last look: the look it owes, at the end of that second, finds it.
    // What the storm left queued after the last wait, taken away unlooked at.
    TakeEvents(recorded.m_watch);
    const int reads = kernel.m_nReads;
    kernel.Show(WithoutLink(WholeTwoPortShape(), "br0"));
    recorded.Send({storm.front()});
    const int64_t tookMs = TimedWait(recorded.m_watch, state, 5000);
    EXPECT_LT(tookMs, 2500);
    EXPECT_EQ(kernel.m_nReads, reads + 1);
    EXPECT_EQ(log.Timeline(), Lines{"WARN CheckForOutsideChanges: br0 was removed; rebuilding the bridge"});
    EXPECT_TRUE(state.m_bBridgeSetupPending);
}

// Writes a lease file at `path` as `uid` would (owner and mode set before it is
// closed, so the close's notification finds them).
bool WriteLease(const char* path, uid_t uid, mode_t mode) {
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    const char text[] = "veth1 192.168.77.100 255.255.255.0\n";
    const bool written = fchown(fd, uid, uid) == 0 && fchmod(fd, mode) == 0 &&
                         write(fd, text, sizeof(text) - 1) == static_cast<ssize_t>(sizeof(text) - 1);
    return close(fd) == 0 && written;
}

// Waits pass after pass for `forMs`, as the daemon's loop does: how many passes came.
int PassesWithin(EVENT_WATCH& watch, CYCLE_STATE& state, int64_t forMs) {
    const int64_t endMs = SteadyMs() + forMs;
    int passes = 0;
    while (SteadyMs() < endMs) {
        AwaitNextPass(watch, state, 1000);
        ++passes;
    }
    return passes;
}

TEST(FileNotificationsTest, ALeaseFileOfAnotherUserBringsNoPassAndRootsStillOneAtOnce) {
    TESSEL_NEED_NAMESPACES();
    Lines lines = InNewNamespaces(CLONE_NEWNET | CLONE_NEWNS, [] {
        if (mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0) return Lines{"cannot mount /tmp"};
        LogCapture log;
        KernelShapeScript kernel;
        EVENT_WATCH watch = OpenEventWatch("/etc/tessel-networkd.conf");
        CYCLE_STATE state = BuiltTwoPortState();
        Lines seen;
        auto said = [&](const std::string& what) { seen.push_back(what + ": " + Said(TakeEvents(watch))); };
        WriteLease("/tmp/dhcp_veth1.txt", 65534, 0644);
        said("nobody's lease");
        WriteLease("/tmp/dhcp_veth3.txt", 0, 0666);
        said("root's lease, writable by others");
        WriteLease("/tmp/dhcp_veth3.txt", 0, 0644);
        said("root's lease");
        unlink("/tmp/dhcp_veth1.txt");
        unlink("/tmp/dhcp_veth3.txt");
        // Written again and again over 2.5 s, as an unprivileged user can.
        std::thread flood([] {
            const int64_t endMs = SteadyMs() + 2500;
            for (int i = 0; SteadyMs() < endMs; ++i) {
                WriteLease(i % 2 == 0 ? "/tmp/dhcp_veth1.txt" : "/tmp/dhcp_veth3.txt", 65534, 0644);
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
            }
        });
        const int passes = PassesWithin(watch, state, 2500);
        flood.join();
        seen.push_back(passes <= 4 ? "the backstop's passes only" : std::to_string(passes) + " passes");
        // Root's lease put in place by rename, as the client's script does: at once.
        std::thread lease([] {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            unlink("/tmp/dhcp_veth1.txt");
            WriteLease("/tmp/.lease", 0, 0644);
            rename("/tmp/.lease", "/tmp/dhcp_veth1.txt");
        });
        const int64_t tookMs = TimedWait(watch, state, 5000);
        lease.join();
        seen.push_back(tookMs >= 200 && tookMs < 1000 ? "root's lease at once" : "took " + std::to_string(tookMs));
        seen.push_back(std::to_string(kernel.m_nReads) + " looks at the kernel");
        Lines timeline = log.Timeline();
        seen.insert(seen.end(), timeline.begin(), timeline.end());
        return seen;
    });
    EXPECT_EQ(lines,
              (Lines{"nobody's lease: nothing", "root's lease, writable by others: nothing", "root's lease: lease",
                     "the backstop's passes only", "root's lease at once", "0 looks at the kernel"}));
}

TEST(FileNotificationsTest, TheConfigurationWrittenAgainAndAgainBringsOneExtraPassASecond) {
    TESSEL_NEED_NAMESPACES();
    Lines lines = InNewNamespaces(CLONE_NEWNET | CLONE_NEWNS, [] {
        if (mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0) return Lines{"cannot mount /tmp"};
        LogCapture log;
        KernelShapeScript kernel;
        EVENT_WATCH watch = OpenEventWatch("/tmp/networkd.conf");
        CYCLE_STATE state = BuiltTwoPortState();
        Lines seen;
        std::thread writes([] {
            const int64_t endMs = SteadyMs() + 3000;
            while (SteadyMs() < endMs) {
                WriteText("/tmp/networkd.conf", "bridge eth0eth1\n");
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
        });
        const int passes = PassesWithin(watch, state, 3000);
        writes.join();
        // Three seconds: the backstop's three passes and one early a second at most.
        seen.push_back(passes >= 3 && passes <= 7 ? "one extra pass a second at most"
                                                  : std::to_string(passes) + " passes");
        seen.push_back(state.m_nConfigWritingSinceMs == 0 ? "not being written" : "being written");
        // After a quiet second, a write brings its pass at once again.
        AwaitNextPass(watch, state, 1000);
        std::thread write([] {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            WriteText("/tmp/networkd.conf", "bridge eth0\n");
        });
        const int64_t tookMs = TimedWait(watch, state, 5000);
        write.join();
        seen.push_back(tookMs >= 100 && tookMs < 900 ? "the next write at once" : "took " + std::to_string(tookMs));
        return seen;
    });
    EXPECT_EQ(lines, (Lines{"one extra pass a second at most", "not being written", "the next write at once"}));
}

// inotify's overflow record, as the kernel queues it when events were lost.
std::string Overflow() {
    inotify_event record{};
    record.wd = -1;
    record.mask = IN_Q_OVERFLOW;
    return std::string(reinterpret_cast<const char*>(&record), sizeof(record));
}

// An inotify record of a name in a watched directory, padded as the kernel pads it.
std::string FileRecord(int wd, uint32_t mask, const std::string& name) {
    inotify_event record{};
    record.wd = wd;
    record.mask = mask;
    record.len = static_cast<uint32_t>((name.size() + 1 + 3) / 4 * 4);
    std::string text(reinterpret_cast<const char*>(&record), sizeof(record));
    text += name;
    text.append(record.len - name.size(), '\0');
    return text;
}

TEST(FileNotificationsTest, ThePendingRecordsChangesAreNotedAndTheConfigurationsAloneAreNot) {
    EVENT_WATCH watch;
    watch.m_nConfigWatch = 1;
    watch.m_nLeaseWatch = 2;
    watch.m_configName = "networkd.conf";
    watch.m_pendingName = "networkd.conf.pending";
    const auto note = [&watch](const std::string& records) {
        EVENTS events;
        NoteFileEvents(watch, records.data(), records.size(), events);
        return std::string(events.m_bRecordChanged ? "record" : "-") + (events.m_bConfigWritten ? " config" : "");
    };
    EXPECT_EQ(note(FileRecord(1, IN_MOVED_TO, "networkd.conf.pending")), "record");
    EXPECT_EQ(note(FileRecord(1, IN_DELETE, "networkd.conf.pending")), "record");
    EXPECT_EQ(note(FileRecord(1, IN_MOVED_TO, "networkd.conf")), "- config");
    EXPECT_EQ(note(FileRecord(1, IN_MOVED_TO, "networkd.conf.rollback")), "-");
    EXPECT_EQ(note(FileRecord(1, IN_CLOSE_WRITE, ".networkd.conf.pending.apply-Ab3dEf")), "-");
    // The same name in /tmp's watch is another file.
    EXPECT_EQ(note(FileRecord(2, IN_MOVED_TO, "networkd.conf.pending")), "-");
    EXPECT_EQ(note(FileRecord(1, IN_MOVED_TO, "networkd.conf.pending") + FileRecord(1, IN_MOVED_TO, "networkd.conf")),
              "record config");
}

TEST(FileNotificationsTest, OverflowsAreOneLookAtTheLeaseFilesNotAPassEach) {
    TESSEL_NEED_NAMESPACES();
    Lines lines = InNewNamespaces(CLONE_NEWNET | CLONE_NEWNS, [] {
        if (mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0) return Lines{"cannot mount /tmp"};
        LogCapture log;
        KernelShapeScript kernel;
        // The files' side is a pipe the test writes overflow records to.
        int ends[2] = {-1, -1};
        if (pipe2(ends, O_NONBLOCK | O_CLOEXEC) != 0) return Lines{"no pipe"};
        EVENT_WATCH watch;
        watch.m_files.Reset(ends[0]);
        watch.m_nConfigWatch = 1;
        watch.m_nLeaseWatch = 2;
        watch.m_configName = "networkd.conf";
        Util::UniqueFd writer(ends[1]);
        CYCLE_STATE state = BuiltTwoPortState();
        Lines seen;
        const std::string overflow = Overflow();
        EVENTS events;
        NoteFileEvents(watch, overflow.data(), overflow.size(), events);
        seen.push_back(std::string(events.m_bFilesLost ? "lost" : "not lost") + ", " + Said(events));
        auto overflows = [&writer, &overflow](int64_t forMs) {
            return std::thread([&writer, &overflow, forMs] {
                const int64_t endMs = SteadyMs() + forMs;
                while (SteadyMs() < endMs) {
                    if (write(writer.Get(), overflow.data(), overflow.size()) < 0) break;
                    std::this_thread::sleep_for(std::chrono::milliseconds(5));
                }
            });
        };
        // No lease to take: the overflows bring no pass.
        std::thread lost = overflows(2500);
        int passes = PassesWithin(watch, state, 2500);
        lost.join();
        seen.push_back(passes <= 4 ? "no lease: the backstop's passes only" : std::to_string(passes) + " passes");
        // A lease to take (left there: the worst case): one early pass a second at most.
        if (!WriteLease("/tmp/dhcp_veth3.txt", 0, 0644)) return Lines{"cannot write a lease"};
        lost = overflows(3000);
        passes = PassesWithin(watch, state, 3000);
        lost.join();
        seen.push_back(passes >= 3 && passes <= 7 ? "a lease: one extra pass a second at most"
                                                  : std::to_string(passes) + " passes");
        seen.push_back(std::to_string(kernel.m_nReads) + " looks at the kernel");
        return seen;
    });
    EXPECT_EQ(lines, (Lines{"lost, nothing", "no lease: the backstop's passes only",
                            "a lease: one extra pass a second at most", "0 looks at the kernel"}));
}

}  // namespace
