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

#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
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

}  // namespace
