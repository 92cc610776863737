// The supervision cycle, one pass at a time, against the state the caller keeps.
#include "src/NetworkCycle.h"

#include <string>

#include "logging/Logging.h"
#include "src/Network.h"

namespace {

const char* const kPhyModeFile = "/proc/marvell-phy-0-port";
const unsigned int kVeth1Metric = 10;
const unsigned int kVeth3Metric = 100;

// Register writes that recover the eth0 link, in run order, each with the pause
// that follows it; the 0x701/0x700 pulse is written twice on purpose, each pair
// back to back.
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

void RunRegisterWriteSequence() {
    for (const REGISTER_WRITE& write : kRegisterWriteSequence) {
        RunCommand(write.m_szCommand);
        if (write.m_nPauseAfterMs != 0) Pause(write.m_nPauseAfterMs);
    }
}

}  // namespace

void RunSupervisionCycle(const std::string& configPath, CYCLE_STATE& state) {
    bool bSettingsValid = false;
    bool bVrx0Valid = false;
    bool bVrx1Valid = false;
    if (ParseConfigFile(configPath, state.m_settings, bSettingsValid, bVrx0Valid, bVrx1Valid) != 0 || !bSettingsValid) {
        return;
    }
    USER_SETTINGS& settings = state.m_settings;
    const BRIDGE_MODE bridgeMode = settings.m_eBridgeMode;

    if (state.m_bBridgeSetupPending || bridgeMode != state.m_eLastBridgeMode) {
        SetupBridge(bridgeMode, "", "");
        state.m_eLastBridgeMode = bridgeMode;
        state.m_bBridgeSetupPending = false;
        // Both interfaces are set up again on the rebuilt bridge, in this pass.
        state.m_bVeth1Reconfigure = true;
        state.m_bVeth3Reconfigure = true;
    }

    bool bRegisterWritesDue = state.m_bFirstCycle;
    if (BridgesEth0(bridgeMode)) {
        if (GenericInterfaceLinkIsUp("eth0", state.m_bEth0LinkUp) != 0) {
            LOG_ENTRY(LOGGING_SEVERITY_WARN, false, "Unable to get link status for bridge physical interface eth0");
            state.m_bEth0LinkUp = false;
        } else if (state.m_bEth0LinkUp) {
            // Every pass while up, in case anything detached the port.
            RunCommand("ip link set eth0 master br0 > /dev/null 2>&1");
        } else {
            RunCommand("ip link set eth0 down > /dev/null 2>&1");
            RunCommand("ip link set eth0 up > /dev/null 2>&1");
            bRegisterWritesDue = true;
        }
    }
    if (bRegisterWritesDue) RunRegisterWriteSequence();

    ServiceVethX("veth1", kVeth1Metric, state.m_bVeth1Reconfigure, state.m_veth1Applied, settings.m_veth1Config,
                 state.m_veth1Dhcp);
    if (bridgeMode == BRIDGE_MODE_ETH0ETH1) {
        ServiceVethX("veth3", kVeth3Metric, state.m_bVeth3Reconfigure, state.m_veth3Applied, settings.m_veth3Config,
                     state.m_veth3Dhcp);
    }

    if (state.m_bPhyModePending || settings.m_ePhyMode != state.m_eLastPhyMode) {
        // Recorded as applied whatever the write does: a missing driver file is
        // not retried until the mode changes.
        state.m_eLastPhyMode = settings.m_ePhyMode;
        state.m_bPhyModePending = false;
        SetEthernetPhyMode(kPhyModeFile, state.m_eLastPhyMode);
        RunCommand("ip link set dev eth1 down");
        RunCommand("ip link set dev eth1 up");
    }
    state.m_bFirstCycle = false;
}
