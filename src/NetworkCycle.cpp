// The supervision cycle, one pass at a time, against the state the caller keeps.
#include "src/NetworkCycle.h"

#include <unistd.h>

#include <cstddef>
#include <initializer_list>
#include <optional>
#include <string>
#include <utility>

#include "logging/Logging.h"
#include "src/NetworkBridge.h"
#include "src/NetworkClock.h"
#include "src/NetworkConfig.h"
#include "src/NetworkCycleShape.h"
#include "src/NetworkDhcp.h"
#include "src/NetworkInterfaces.h"
#include "src/NetworkIsolation.h"
#include "src/NetworkLinkPhy.h"
#include "src/NetworkRetry.h"
#include "src/NetworkShape.h"
#include "src/NetworkShell.h"
#include "src/NetworkStop.h"
#include "util/Format.h"

namespace {

// Register writes that recover the eth0 link, in run order, each with the pause
// that follows it; the 0x701/0x700 pulse is written twice on purpose, each pair
// back to back.
// None has to succeed: the sequence is run again whenever the link is found down.
struct REGISTER_WRITE {
    const char* m_szCommand;
    unsigned int m_nPauseAfterMs;
};
// clang-format off
const REGISTER_WRITE kRegisterWriteSequence[] = {
    {"devmem 0xFF200088 32 0x3",   100},
    {"devmem 0xFF200088 32 0x0",   100},
    {"devmem 0xFF20008C 32 0x701", 0},
    {"devmem 0xFF20008C 32 0x700", 100},
    {"devmem 0xFF20008C 32 0x701", 0},
    {"devmem 0xFF20008C 32 0x700", 100},
    {"devmem 0xFF200088 32 0x2",   100},
    {"devmem 0xFF200088 32 0x0",   100},
};
// clang-format on

// Loopback up, and eth1 bounced; only the loopback is needed by later work.
// Where a daemon before this one left br0 carrying eth1, eth1 is blocked in
// between (BlockEth1AtStartUp): whatever it left of its rules, nothing crosses
// eth1 until a build has finished.
const SHELL_STEP kLoopbackSteps[] = {
    {"ip link set dev lo up", true},
};
// eth1 bounced, at start-up and after its PHY mode is written, to take it up.
const SHELL_STEP kBounceEth1Steps[] = {
    {"ip link set dev eth1 down", false},
    {"ip link set dev eth1 up", false},
};

// eth0 found down is bounced (the register writes follow); found up, it is put
// back into br0 in case anything detached it. Both are repeated every pass the
// link is in that state, so none has to succeed.
const SHELL_STEP kEth0DownSteps[] = {
    {"ip link set eth0 down > /dev/null 2>&1", false},
    {"ip link set eth0 up > /dev/null 2>&1", false},
};
const SHELL_STEP kEth0UpSteps[] = {
    {"ip link set eth0 master br0 > /dev/null 2>&1", false},
};
// After a PHY mode write that found no driver file, whether the file is there
// now, looked at only when the PHY work's wait is over and nothing else makes
// it due: no command, no entry. Still missing, the look counts as one more
// failed attempt, so the looks thin out to one a minute.
bool PhyModeFileBack(const USER_SETTINGS& settings, CYCLE_STATE& state) {
    if (!state.m_bPhyFileMissing || state.m_bPhyModePending || settings.m_ePhyMode != state.m_eLastPhyMode) {
        return false;
    }
    if (!WorkDue(state.m_phyHealth)) return false;
    if (access(state.m_phyModeFile.c_str(), F_OK) == 0) return true;
    NoteWorkFailedQuietly(state.m_phyHealth, state.m_phyHealth.m_lastFailure);
    return false;
}

// False, with the failure, when a write could not be run (started, and ended
// before its deadline); a write that fails is not run again. Not begun once a
// stop's grace is over; once begun, run to its end whatever stop comes (each
// write still under its deadline): a pulse pair cut in half would leave the PHY
// where no later pass starts from.
bool RunRegisterWriteSequence(WORK_FAILURE& failure) {
    if (StopGraceOver()) return RunStep(kRegisterWriteSequence[0].m_szCommand, false, failure);
    StopDeferred wholeSequence;
    for (const REGISTER_WRITE& write : kRegisterWriteSequence) {
        if (!RunStep(write.m_szCommand, false, failure)) return false;
        if (write.m_nPauseAfterMs != 0) Pause(write.m_nPauseAfterMs);
    }
    return true;
}

// One build of br0 for the mode. In the two-port mode eth1 and veth0 are
// blocked from its first command to its last, where the link layer can be
// had, and the isolation is then completed and looked at. In the others the
// design's commands alone run, and link-layer rules go where there may be
// some (quietly), and a block start-up left on eth1 is lifted. A build cut
// short leaves the blocks.
bool BuildBridge(BRIDGE_MODE bridgeMode, ISOLATION_STATE& isolation, WORK_FAILURE& failure) {
    const bool twoPorts = bridgeMode == BRIDGE_MODE_ETH0ETH1;
    isolation.m_bInForce = false;
    isolation.m_problem.clear();
    LINK_LAYER_STATE& linkLayer = isolation.m_linkLayer;
    bool built = (!twoPorts || BlockTwoPortBuild(linkLayer, failure)) && SetupBridge(bridgeMode, "", "", &failure);
    if (built && twoPorts) built = CompleteIsolation(isolation, failure) && LiftBlocksOfBuild(linkLayer, failure);
    if (built && !twoPorts) built = RemoveLinkLayerRulesOfBuild(linkLayer, failure);
    if (built) built = LiftEth1BlockOfBuild(linkLayer, failure);
    if (!twoPorts) {
        // What is known of the link layer holds whatever the mode.
        LINK_LAYER_STATE kept = std::move(linkLayer);
        isolation = ISOLATION_STATE{};
        isolation.m_linkLayer = std::move(kept);
        return built;
    }
    if (built) {
        // The build raised eth1 and put every rule in: nothing is left to repair.
        isolation.m_bRepairPending = false;
        isolation.m_bEth1HeldDown = false;
        NoteWorkDone(isolation.m_health, "isolation");
    } else {
        isolation.m_bInForce = false;
        if (isolation.m_problem.empty()) isolation.m_problem = "the bridge build stopped at: " + failure.m_command;
    }
    return built;
}

// One served interface's pass; when its addressing changed (set up, a lease
// put in force), what it put in place is noted as held.
void ServiceServed(const std::string& name, unsigned int metric, const IP_CONFIG& wanted, SHAPE_REPAIR work,
                   INTERFACE_STATE& iface, CYCLE_STATE& state) {
    const IP_CONFIG applied = iface.m_applied;
    const DHCP_STATE lease = iface.m_dhcp;
    const bool pending = iface.m_bReconfigure || iface.m_bLeasePending;
    ServiceVethX(name, metric, wanted, iface);
    const bool nowPending = iface.m_bReconfigure || iface.m_bLeasePending;
    if (!nowPending && (pending || applied != iface.m_applied || lease != iface.m_dhcp)) NoteShapeHeld(state, {work});
}

// One build of br0 for the mode, with what follows it: both interfaces set up
// again on it, the shape noted as held, or the wait after a failure. True when
// it was built; `holdEth1` gets the failure when eth1 is then to be kept down
// (the two-port mode), for the caller's WARN.
bool RunBridgeBuild(BRIDGE_MODE bridgeMode, CYCLE_STATE& state, std::optional<WORK_FAILURE>& failureOut) {
    WORK_FAILURE failure;
    const bool built = BuildBridge(bridgeMode, state.m_isolation, failure);
    state.m_eLastBridgeMode = bridgeMode;
    state.m_bBridgeSetupPending = !built;
    // Both interfaces are set up again on the rebuilt bridge, in this pass.
    state.m_veth1.m_bReconfigure = true;
    state.m_veth3.m_bReconfigure = true;
    if (built) {
        NoteShapeHeld(state, {SHAPE_REPAIR_BRIDGE, SHAPE_REPAIR_ETH0});
        NoteWorkDone(state.m_bridgeHealth, "bridge setup");
    } else {
        NoteWorkFailed(state.m_bridgeHealth, "bridge setup", failure);
        if (bridgeMode == BRIDGE_MODE_ETH0ETH1 && !StopRequested()) failureOut = failure;
    }
    return built;
}

// eth0 put back into br0, as every pass does while its link is up; after an
// outside change that one repairs, only once its wait is over (a fight).
void PutEth0IntoBridge(CYCLE_STATE& state) {
    if (state.m_bEth0PortPending && !WorkDue(state.m_eth0PortHealth)) return;
    WORK_FAILURE failure;
    RunSteps(kEth0UpSteps, failure);
    if (!state.m_bEth0PortPending) return;
    state.m_bEth0PortPending = false;
    NoteShapeHeld(state, {SHAPE_REPAIR_ETH0});
    NoteWorkDone(state.m_eth0PortHealth, "eth0's place in br0");
}

// While the file is unusable nothing new is applied, but what the last usable
// one built is still looked at and put back: a rebuild after an outside
// change, the isolation's look and repair, the small repairs, eth0's place in
// br0 and the addressing an outside change took away.
void SuperviseLastUsableShape(CYCLE_STATE& state) {
    const BRIDGE_MODE bridgeMode = state.m_eLastBridgeMode;
    const USER_SETTINGS& settings = state.m_lastUsableSettings;
    const bool rebuild =
        state.m_bBridgeSetupPending && state.m_bridgeHealth.m_bUndonePending && WorkDue(state.m_bridgeHealth);
    std::optional<WORK_FAILURE> holdEth1;
    const bool bridgeBuilt = rebuild && RunBridgeBuild(bridgeMode, state, holdEth1);
    if (holdEth1) {
        LOG_ENTRY(LOGGING_SEVERITY_WARN, false, "Keeping eth1 down until the isolation rules are in place");
        HoldEth1Down(*holdEth1);
    }
    if (bridgeMode == BRIDGE_MODE_ETH0ETH1 && !state.m_bBridgeSetupPending && !bridgeBuilt) {
        SuperviseIsolation(state.m_isolation);
    }
    RepairSmallChanges(state);
    if (state.m_bEth0PortPending && state.m_bEth0LinkUp) PutEth0IntoBridge(state);
    if (state.m_bBridgeSetupPending) return;
    if (state.m_veth1.m_bReconfigure || state.m_veth1.m_bLeasePending) {
        ServiceServed("veth1", kVeth1Metric, settings.m_veth1Config, SHAPE_REPAIR_VETH1, state.m_veth1, state);
    }
    const bool veth3Pending = state.m_veth3.m_bReconfigure || state.m_veth3.m_bLeasePending;
    if (bridgeMode == BRIDGE_MODE_ETH0ETH1 && veth3Pending) {
        ServiceServed("veth3", kVeth3Metric, settings.m_veth3Config, SHAPE_REPAIR_VETH3, state.m_veth3, state);
    }
}

}  // namespace

void NoteEth0Recovery(CYCLE_STATE& state) {
    const int64_t nowMs = MonotonicMs();
    if (state.m_nEth0StreakRecoveries == 0 || nowMs - state.m_nEth0RecoveredMs > kEth0StreakGapMs) {
        state.m_nEth0StreakRecoveries = 0;
        state.m_eth0StreakSince = state.m_eth0RecoveredAt;
    }
    ++state.m_nEth0StreakRecoveries;
    state.m_nEth0RecoveredMs = nowMs;
}

void RunStartupCommands(CYCLE_STATE& state) {
    WORK_FAILURE failure;
    if (RunSteps(kLoopbackSteps, failure) && BlockEth1AtStartUp(state.m_isolation.m_linkLayer, failure) &&
        RunSteps(kBounceEth1Steps, failure)) {
        state.m_bStartupPending = false;
        NoteWorkDone(state.m_startupHealth, "start-up commands");
    } else {
        state.m_bStartupPending = true;
        NoteWorkFailed(state.m_startupHealth, "start-up commands", failure);
    }
}

void RunSupervisionCycle(const std::string& configPath, CYCLE_STATE& state) {
    if (state.m_bStartupPending && WorkDue(state.m_startupHealth)) RunStartupCommands(state);

    // A file some writer has not closed yet may hold half a line that reads as
    // a good one: the last read stands until the writer is done.
    const bool bBeingWritten = state.m_bConfigRead && state.m_nConfigWritingSinceMs != 0 &&
                               MonotonicMs() - state.m_nConfigWritingSinceMs < kConfigWriteWaitMs;
    if (!bBeingWritten) {
        bool bSettingsValid = false;
        bool bVrx0Valid = false;
        bool bVrx1Valid = false;
        // The read and its problems are kept for the status document.
        state.m_configProblems.clear();
        const bool bRead = ParseConfigFile(configPath, state.m_settings, bSettingsValid, bVrx0Valid, bVrx1Valid,
                                           &state.m_configProblems) == 0;
        state.m_bConfigRead = true;
        state.m_bConfigUsable = bRead && bSettingsValid;
    }
    if (!state.m_bConfigUsable) {
        if (!state.m_bFirstCycle) SuperviseLastUsableShape(state);
        return;
    }
    state.m_lastUsableSettings = state.m_settings;
    const USER_SETTINGS& settings = state.m_settings;
    const BRIDGE_MODE bridgeMode = settings.m_eBridgeMode;

    // A new mode is new work, built at once; a build that failed is tried again
    // when its wait is over.
    const bool modeChanged = bridgeMode != state.m_eLastBridgeMode;
    std::optional<WORK_FAILURE> holdEth1;
    const bool bridgeBuilt = (modeChanged || (state.m_bBridgeSetupPending && WorkDue(state.m_bridgeHealth))) &&
                             RunBridgeBuild(bridgeMode, state, holdEth1);
    if (holdEth1) {
        LOG_ENTRY(LOGGING_SEVERITY_WARN, false, "Keeping eth1 down until the isolation rules are in place");
        // A build that stopped short may have bridged eth1 without all the
        // rules: the next builds raise it only after them.
        HoldEth1Down(*holdEth1);
    }
    RepairSmallChanges(state);

    // The isolation a build left in force is looked at now and then, and put
    // back when someone took part of it away.
    if (bridgeMode == BRIDGE_MODE_ETH0ETH1 && !state.m_bBridgeSetupPending && !bridgeBuilt) {
        SuperviseIsolation(state.m_isolation);
    }

    bool bRegisterWritesDue = state.m_bFirstCycle;
    if (BridgesEth0(bridgeMode)) {
        WORK_FAILURE failure;
        if (GenericInterfaceLinkIsUp("eth0", state.m_bEth0LinkUp) != 0) {
            LOG_ENTRY(LOGGING_SEVERITY_WARN, false, "Unable to get link status for bridge physical interface eth0");
            state.m_bEth0LinkUp = false;
        } else if (state.m_bEth0LinkUp) {
            PutEth0IntoBridge(state);
        } else {
            RunSteps(kEth0DownSteps, failure);
            ++state.m_nEth0Recoveries;
            state.m_eth0RecoveredAt = Util::RealTimeNow();
            NoteEth0Recovery(state);
            bRegisterWritesDue = true;
        }
    }
    if (bRegisterWritesDue || (state.m_bRegisterWritesPending && WorkDue(state.m_registerHealth))) {
        WORK_FAILURE failure;
        state.m_bRegisterWritesPending = !RunRegisterWriteSequence(failure);
        if (state.m_bRegisterWritesPending) {
            NoteWorkFailed(state.m_registerHealth, "register writes", failure);
        } else {
            NoteWorkDone(state.m_registerHealth, "register writes");
        }
    }

    ServiceServed("veth1", kVeth1Metric, settings.m_veth1Config, SHAPE_REPAIR_VETH1, state.m_veth1, state);
    if (bridgeMode == BRIDGE_MODE_ETH0ETH1) {
        ServiceServed("veth3", kVeth3Metric, settings.m_veth3Config, SHAPE_REPAIR_VETH3, state.m_veth3, state);
    }

    const bool phyFileBack = PhyModeFileBack(settings, state);
    if (settings.m_ePhyMode != state.m_eLastPhyMode || phyFileBack ||
        (state.m_bPhyModePending && WorkDue(state.m_phyHealth))) {
        // A failed write is not tried again until the mode changes or its file
        // is found (PhyModeFileBack). eth1's bounce is, when it could not be run.
        state.m_eLastPhyMode = settings.m_ePhyMode;
        WORK_FAILURE writeFailure;
        state.m_bPhyWriteFailed = !SetEthernetPhyMode(state.m_phyModeFile, state.m_eLastPhyMode, &writeFailure);
        state.m_bPhyFileMissing = state.m_bPhyWriteFailed && access(state.m_phyModeFile.c_str(), F_OK) != 0;
        WORK_FAILURE failure;
        state.m_bPhyModePending = !RunSteps(kBounceEth1Steps, failure);
        if (state.m_bPhyModePending) {
            NoteWorkFailed(state.m_phyHealth, "PHY mode", failure);
        } else if (state.m_bPhyWriteFailed) {
            // The write's own ERROR has said it; no retry is announced.
            NoteWorkFailedQuietly(state.m_phyHealth, writeFailure);
        } else {
            NoteWorkDone(state.m_phyHealth, "PHY mode");
        }
        // The bounce raised eth1; where the isolation is not in place, the
        // daemon keeps it down all the same.
        const bool eth1HeldDown =
            bridgeMode == BRIDGE_MODE_ETH0ETH1 && (state.m_bBridgeSetupPending || state.m_isolation.m_bEth1HeldDown);
        if (eth1HeldDown && !StopRequested()) HoldEth1Down(failure);
    }
    state.m_bFirstCycle = false;
}
