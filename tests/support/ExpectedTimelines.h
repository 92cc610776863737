// Timelines that more than one test expects, in C++ and in the Python system
// and lab tests alike: the bridge build of each mode and the register writes
// that recover eth0. Each is written out by hand once, as a file in
// tests/fixtures/ (CTest names the folder in TESSEL_FIXTURES), never built by
// the code under test.
#pragma once

#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "tests/support/Files.h"

// The veth1 MAC of the kernel command line the unit tests give the daemon.
constexpr const char* kTestVeth1Mac = "02:00:00:00:77:01";

// The timeline in tests/fixtures/`name`, without its comments and blank lines,
// each "@NAME@" replaced by its value. A fixture that cannot be read gives one
// line that says so, which no timeline under test equals.
inline std::vector<std::string> ReadTimelineFixture(const std::string& name,
                                                    const std::map<std::string, std::string>& values = {}) {
    const char* folder = std::getenv("TESSEL_FIXTURES");
    if (folder == nullptr || *folder == '\0') return {"cannot read fixture " + name + ": TESSEL_FIXTURES is not set"};
    const std::string path = std::string(folder) + "/" + name;
    const std::string text = ReadFile(path);
    if (text.empty()) return {"cannot read fixture " + path};
    std::vector<std::string> timeline;
    for (std::string line : SplitLines(text)) {
        if (line.empty() || line[0] == '#') continue;
        for (const auto& [key, value] : values) {
            const std::string placeholder = "@" + key + "@";
            for (size_t at = line.find(placeholder); at != std::string::npos; at = line.find(placeholder, at)) {
                line.replace(at, placeholder.size(), value);
                at += value.size();
            }
        }
        timeline.push_back(line);
    }
    return timeline;
}

// SetupBridge(mode, "", "") under a command line with mac=kTestVeth1Mac: its
// commands between its two entries (21, 21 and 84; the out-of-range modes 18).
inline const std::vector<std::string>& BridgeBuildEth0() {
    static const auto timeline = ReadTimelineFixture("bridge-eth0.timeline", {{"VETH1_MAC", kTestVeth1Mac}});
    return timeline;
}
inline const std::vector<std::string>& BridgeBuildEth1() {
    static const auto timeline = ReadTimelineFixture("bridge-eth1.timeline", {{"VETH1_MAC", kTestVeth1Mac}});
    return timeline;
}
inline const std::vector<std::string>& BridgeBuildEth0Eth1() {
    static const auto timeline = ReadTimelineFixture("bridge-eth0eth1.timeline", {{"VETH1_MAC", kTestVeth1Mac}});
    return timeline;
}
inline const std::vector<std::string>& BridgeBuildOtherMode() {
    static const auto timeline = ReadTimelineFixture("bridge-other-mode.timeline", {{"VETH1_MAC", kTestVeth1Mac}});
    return timeline;
}

// eth1's block before a build (and at start-up), and its lift after one.
inline const std::vector<std::string>& Eth1Block() {
    static const auto timeline = ReadTimelineFixture("eth1-block.timeline");
    return timeline;
}
inline const std::vector<std::string>& Eth1Lift() {
    static const auto timeline = ReadTimelineFixture("eth1-lift.timeline");
    return timeline;
}

// veth0's block and lift around a two-port build and a repair, and what a build
// in another mode runs before eth1's lift.
inline const std::vector<std::string>& Veth0Block() {
    static const auto timeline = ReadTimelineFixture("veth0-block.timeline");
    return timeline;
}
inline const std::vector<std::string>& Veth0Lift() {
    static const auto timeline = ReadTimelineFixture("veth0-lift.timeline");
    return timeline;
}
inline const std::vector<std::string>& LinkLayerRemoval() {
    static const auto timeline = ReadTimelineFixture("link-layer-removal.timeline");
    return timeline;
}

// What completes the isolation after the two-port build, up to its entry.
inline const std::vector<std::string>& IsolationComplete() {
    static const auto timeline = ReadTimelineFixture("isolation-complete.timeline");
    return timeline;
}
// Where ebtables takes a batch: the same with the link-layer rules in one
// ebtables-restore; both blocks before a two-port build or a repair, and their
// lifts after it, each in one as well.
inline const std::vector<std::string>& IsolationCompleteInOne() {
    static const auto timeline = ReadTimelineFixture("isolation-complete-batch.timeline");
    return timeline;
}
inline const std::vector<std::string>& TwoPortBlocks() {
    static const auto timeline = ReadTimelineFixture("two-port-blocks.timeline");
    return timeline;
}
inline const std::vector<std::string>& TwoPortLifts() {
    static const auto timeline = ReadTimelineFixture("two-port-lifts.timeline");
    return timeline;
}
// The periodic look at it, and the ARP and IP rules a repair puts back.
inline const std::vector<std::string>& IsolationLook() {
    static const auto timeline = ReadTimelineFixture("isolation-look.timeline");
    return timeline;
}
inline const std::vector<std::string>& IsolationRules() {
    static const auto timeline = ReadTimelineFixture("isolation-rules.timeline");
    return timeline;
}

// The register writes, with their pauses, as a pass runs them.
inline const std::vector<std::string>& RegisterWrites() {
    static const auto timeline = ReadTimelineFixture("register-writes.timeline");
    return timeline;
}

// The commands of a timeline, without the "$ " they are shown with.
inline std::vector<std::string> CommandsOf(const std::vector<std::string>& timeline) {
    std::vector<std::string> commands;
    for (const std::string& line : timeline) {
        if (line.rfind("$ ", 0) == 0) commands.push_back(line.substr(2));
    }
    return commands;
}
