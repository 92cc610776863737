// The supervision cycle: one pass turns the configuration file into the device's
// bridge, links, addresses and PHY mode, against what earlier passes applied.
#pragma once

#include <time.h>

#include <cstdint>
#include <string>
#include <vector>

#include "src/NetworkConfig.h"
#include "src/NetworkInterfaces.h"
#include "src/NetworkIsolation.h"
#include "src/NetworkRetry.h"
#include "src/NetworkShape.h"

// The PHY driver's file, unless the command line names another.
constexpr const char* kPhyModeFile = "/proc/marvell-phy-0-port";

// The route metrics of the served interfaces: veth1's default route is preferred.
constexpr unsigned int kVeth1Metric = 10;
constexpr unsigned int kVeth3Metric = 100;

// One kind of small repair (a link set up again, a port put back into br0, a
// MAC address set back): the interfaces it is due for, and its health, whose
// undos in a row make a fight wait 1, 2, 4 ... 60 s like any other work.
struct SMALL_REPAIR {
    std::vector<std::string> m_pending;
    WORK_HEALTH m_health;
};

// What the cycle remembers from one pass to the next. A new record is the state
// before the first pass: everything is due, no lease is in force.
// eth0's recoveries no more than this apart are one streak, shown in the
// status while it lasts (until this long after the last).
constexpr int64_t kEth0StreakGapMs = 60000;

struct CYCLE_STATE {
    // The settings, refilled from the file by every pass (a field changes only
    // when a line for it is read).
    USER_SETTINGS m_settings{};
    // The last read of the file: whether one was made, whether the file was
    // usable, and what was wrong with it, in the log's words (ParseConfigFile's
    // problems), in the order found.
    bool m_bConfigRead = false;
    bool m_bConfigUsable = false;
    std::vector<std::string> m_configProblems;
    // br0 is to be built on the next usable pass, whatever the mode (at first,
    // and again after a build that failed).
    bool m_bBridgeSetupPending = true;
    // The mode br0 was last built for; compared only once a build has happened.
    BRIDGE_MODE m_eLastBridgeMode = BRIDGE_MODE_ETH0;
    // The MAC address the last build gave veth1, in the kernel's lower case;
    // empty when the kernel command line had none it could use.
    std::string m_veth1Mac;
    // The PHY mode is to be written on the next usable pass, whatever the mode.
    bool m_bPhyModePending = true;
    // The PHY mode last written (or attempted: a failed write is not retried,
    // but eth1's bounce after it is when it could not be run).
    PHY_MODE m_eLastPhyMode = PHY_MODE_COPPER;
    // The driver's file the PHY mode is written to.
    std::string m_phyModeFile = kPhyModeFile;
    // The last write of the PHY mode failed: the mode is not in force, and the
    // write is not tried again until the mode changes. Where the file was
    // missing, it is looked for (no command, no entry) each time the PHY work's
    // wait is over, and written once it is there.
    bool m_bPhyWriteFailed = false;
    bool m_bPhyFileMissing = false;
    // eth0's link as last queried; false when the query failed.
    bool m_bEth0LinkUp = false;
    // How often eth0 was found down and recovered, and when last (real time).
    unsigned int m_nEth0Recoveries = 0;
    timespec m_eth0RecoveredAt{};
    // The recoveries of the streak the last one belongs to (each within
    // kEth0StreakGapMs of the one before), since when (real time), and the
    // last one's monotonic time.
    unsigned int m_nEth0StreakRecoveries = 0;
    timespec m_eth0StreakSince{};
    int64_t m_nEth0RecoveredMs = 0;
    // No pass has found the configuration usable yet: the register writes are due.
    bool m_bFirstCycle = true;
    // The register writes could not all be run and are due again.
    bool m_bRegisterWritesPending = false;
    // The start-up commands are to be run (again) at the start of the next pass.
    bool m_bStartupPending = false;
    // The start-up commands, the bridge build, the register writes and the PHY
    // mode's eth1 bounce, as retried work.
    WORK_HEALTH m_startupHealth;
    WORK_HEALTH m_bridgeHealth;
    WORK_HEALTH m_registerHealth;
    WORK_HEALTH m_phyHealth;
    // The two served interfaces.
    INTERFACE_STATE m_veth1;
    INTERFACE_STATE m_veth3;
    // The two-port mode's isolation: whether it was found in force, when, why
    // not, and its repair. Meaningful while br0 is built for that mode.
    ISOLATION_STATE m_isolation;
    // Monotonic time a writer was first seen writing the configuration file
    // without having closed it yet; 0: none. The file is not read meanwhile,
    // for a few seconds at most.
    int64_t m_nConfigWritingSinceMs = 0;
    // What the kernel lacked of a piece of work right after the work was done:
    // the daemon never held it, so its absence later is no outside change
    // (where a tool did less than it said). Replaced, per work, each time the
    // work is done again.
    std::vector<OUTSIDE_CHANGE> m_shapeMisses;
    // The small repairs of outside changes, one record a kind, and eth0's
    // place in br0 (which every pass puts back while its link is up; after
    // an outside change, when its wait is over).
    SMALL_REPAIR m_setUp;
    SMALL_REPAIR m_attach;
    SMALL_REPAIR m_mac;
    bool m_bEth0PortPending = false;
    WORK_HEALTH m_eth0PortHealth;
    // The settings of the last usable read: while the file is unusable, the
    // shape they built is still looked at and put back.
    USER_SETTINGS m_lastUsableSettings{};
};

// How long a configuration file being written is left alone: a writer that
// keeps it open longer has its text taken as it stands.
constexpr int64_t kConfigWriteWaitMs = 5000;

// The start-up commands (loopback up, eth1 bounced), run once before the first
// pass; when one that must succeed fails, they are run again at the start of
// later passes until they do.
void RunStartupCommands(CYCLE_STATE& state);

// Counts a recovery of eth0 (found down, bounced) into its streak: a new
// streak when the last recovery came more than kEth0StreakGapMs ago.
void NoteEth0Recovery(CYCLE_STATE& state);

// One pass: reads the file at `configPath` into `state` and, when it is usable,
// rebuilds, recovers and re-applies what the state says is due or changed. An
// unusable file leaves everything else in `state` as it was.
void RunSupervisionCycle(const std::string& configPath, CYCLE_STATE& state);
