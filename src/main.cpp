// tessel-networkd: keeps the device's bridge, veth pairs, isolation rules,
// addresses and PHY mode in the shape its configuration file asks for.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "cli/CliProcessing.h"
#include "logging/Logging.h"
#include "src/Network.h"
#include "util/Util.h"

namespace {

std::atomic<bool> m_bMainRunning{false};
std::atomic<int> m_nExitCode{0};

const int kStopSignals[] = {SIGHUP, SIGINT, SIGTERM, SIGQUIT};

// The stop signals stay blocked while the daemon works and are let in only while
// it waits (here and in the command runner), so the handler, which logs, never
// lands in the middle of a heap or log call. A signal that arrives meanwhile
// stays pending and is taken at the next wait of the same cycle.
void BlockStopSignals() {
    sigset_t stop;
    sigemptyset(&stop);
    for (int sig : kStopSignals) sigaddset(&stop, sig);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
}

// Sleeps the whole period even when a signal is taken meanwhile: the loop tests
// the run flag only after the pause, and register pulses need their full width.
void Pause(long microseconds) {
    sigset_t none;
    sigset_t previous;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, &previous);
    struct timespec remaining = {microseconds / 1000000, (microseconds % 1000000) * 1000};
    while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

// Register writes that recover the eth0 link, in run order, with a 100 ms pause
// where marked; the 0x701/0x700 pulse is written twice on purpose, each pair
// back to back.
struct RegisterWrite {
    const char* command;
    bool pauseAfter;
};
// clang-format off
const RegisterWrite kRegisterWriteSequence[] = {
    {"devmem 0xFF200088 32 0x3", true},
    {"devmem 0xFF200088 32 0x0", true},
    {"devmem 0xFF20008C 32 0x701", false},
    {"devmem 0xFF20008C 32 0x700", true},
    {"devmem 0xFF20008C 32 0x701", false},
    {"devmem 0xFF20008C 32 0x700", true},
    {"devmem 0xFF200088 32 0x2", true},
    {"devmem 0xFF200088 32 0x0", true},
};
// clang-format on

void RunRegisterWriteSequence() {
    for (const RegisterWrite& write : kRegisterWriteSequence) {
        RunCommand(write.command);
        if (write.pauseAfter) Pause(100000);
    }
}

const char* const kPhyModeFile = "/proc/marvell-phy-0-port";
const unsigned int kVeth1Metric = 10;
const unsigned int kVeth3Metric = 100;

}  // namespace

void SigHandler(int sig) {
    LOG_ENTRY(LOGGING_SEVERITY_INFO, false, Util::Format("SigHandler: Caught signal: %d, shutting down...", sig));
    // Only SIGTERM is a clean stop.
    m_nExitCode = (sig == SIGTERM) ? 0 : sig;
    m_bMainRunning = false;
}

void ShowUsage(CliProcessing& cli) {
    puts(
        "tessel-networkd: keeps the device's bridge, veth pairs, isolation rules, addresses and PHY mode as "
        "configured");
    std::string options = cli.GetUsage(40);
    printf("Usage: tessel-networkd [OPTIONS]\nOptions:\n%s\n", options.c_str());
    fflush(stdout);
}

int main(int argc, char** argv) {
    Logging::SetLogToStdout(true);
    Logging::SetLogLevel(Logging::LOGGING_SEVERITY_INFO);
    LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "tessel-networkd starting");

    // Raised before any handler can clear it: a stop signal taken while a start-up
    // command runs must not be undone when the loop is entered.
    m_bMainRunning = true;
    signal(SIGHUP, SigHandler);
    signal(SIGINT, SigHandler);
    signal(SIGTERM, SigHandler);
    signal(SIGQUIT, SigHandler);
    signal(SIGPIPE, SIG_IGN);
    BlockStopSignals();

    CliProcessing cli;
    cli.AddParam("00help", "--help", "-h", PARAM_OVERRIDE, true, "Shows this help", "");
    cli.AddParam("01cfg-file", "--config", "-c", PARAM_MANDATORY, false, "Path to config file", "");
    if (cli.ProcessCmdLine(argc, argv) != 0) {
        ShowUsage(cli);
        exit(1);
    }
    if (!cli["00help"].empty()) {
        ShowUsage(cli);
        return 0;
    }
    LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "Using config file: " + cli["01cfg-file"]);

    // What the cycle remembers between passes. Fields are written before they
    // are compared: the pending and reconfigure flags start true.
    USER_SETTINGS settings;
    memset(&settings, 0, sizeof settings);
    bool bBridgeSetupPending = true;
    BRIDGE_MODE eLastBridgeMode = BRIDGE_MODE_ETH0;
    bool bVeth1Reconfigure = true;
    bool bVeth3Reconfigure = true;
    bool bPhyModePending = true;
    PHY_MODE eLastPhyMode = PHY_MODE_COPPER;
    bool bEth0LinkUp = false;
    IP_CONFIG veth1Applied;
    IP_CONFIG veth3Applied;
    memset(&veth1Applied, 0, sizeof veth1Applied);
    memset(&veth3Applied, 0, sizeof veth3Applied);
    DHCP_STATE veth1Dhcp;
    DHCP_STATE veth3Dhcp;
    memset(&veth1Dhcp, 0, sizeof veth1Dhcp);
    memset(&veth3Dhcp, 0, sizeof veth3Dhcp);

    LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "Bringing up loopback lo");
    RunCommand("ip link set dev lo up");
    RunCommand("ip link set dev eth1 down");
    RunCommand("ip link set dev eth1 up");

    bool bFirstCycle = true;
    // The path cannot change after parsing; looked up once.
    const std::string configPath = cli["01cfg-file"];
    do {
        bool bSettingsValid = false;
        bool bVrx0Valid = false;
        bool bVrx1Valid = false;
        if (ParseConfigFile(configPath, settings, bSettingsValid, bVrx0Valid, bVrx1Valid) == 0 && bSettingsValid) {
            BRIDGE_MODE bridgeMode = settings.m_eBridgeMode;
            if (bBridgeSetupPending || bridgeMode != eLastBridgeMode) {
                SetupBridge(bridgeMode, "", "");
                eLastBridgeMode = bridgeMode;
                bBridgeSetupPending = false;
                // Both interfaces are set up again on the rebuilt bridge, in this cycle.
                bVeth1Reconfigure = true;
                bVeth3Reconfigure = true;
            }

            bool bRegisterWritesDue = bFirstCycle;
            if (BridgesEth0(bridgeMode)) {
                if (GenericInterfaceLinkIsUp("eth0", bEth0LinkUp) != 0) {
                    LOG_ENTRY(LOGGING_SEVERITY_WARN, false,
                              "Unable to get link status for bridge physical interface eth0");
                    bEth0LinkUp = false;
                } else if (bEth0LinkUp) {
                    // Re-attach every cycle, in case anything detached the port.
                    RunCommand("ip link set eth0 master br0 > /dev/null 2>&1");
                } else {
                    RunCommand("ip link set eth0 down > /dev/null 2>&1");
                    RunCommand("ip link set eth0 up > /dev/null 2>&1");
                    bRegisterWritesDue = true;
                }
            }
            if (bRegisterWritesDue) RunRegisterWriteSequence();

            ServiceVethX("veth1", kVeth1Metric, bVeth1Reconfigure, veth1Applied, settings.m_veth1Config, veth1Dhcp);
            if (bridgeMode == BRIDGE_MODE_ETH0ETH1) {
                ServiceVethX("veth3", kVeth3Metric, bVeth3Reconfigure, veth3Applied, settings.m_veth3Config, veth3Dhcp);
            }

            if (bPhyModePending || settings.m_ePhyMode != eLastPhyMode) {
                // Recorded as applied whatever the write does: a missing driver
                // file is not retried until the mode changes.
                eLastPhyMode = settings.m_ePhyMode;
                bPhyModePending = false;
                SetEthernetPhyMode(kPhyModeFile, eLastPhyMode);
                RunCommand("ip link set dev eth1 down");
                RunCommand("ip link set dev eth1 up");
            }
            bFirstCycle = false;
        }
        Pause(1000000);
    } while (m_bMainRunning);

    LOG_ENTRY(LOGGING_SEVERITY_INFO, false,
              Util::Format("tessel-networkd exiting with code of %d", m_nExitCode.load()));
    return m_nExitCode;
}
