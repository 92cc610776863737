// tessel-networkd: keeps the device's bridge, veth pairs, isolation rules,
// addresses and PHY mode in the shape its configuration file asks for.
#include <malloc.h>
#include <signal.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "cli/CliProcessing.h"
#include "logging/Logging.h"
#include "src/NetworkCycle.h"
#include "src/NetworkEvents.h"
#include "src/NetworkInstance.h"
#include "src/NetworkNotify.h"
#include "src/NetworkPending.h"
#include "src/NetworkShell.h"
#include "src/NetworkStatus.h"
#include "src/NetworkStatusSchema.h"
#include "src/NetworkStop.h"
#include "util/Format.h"
#include "util/Version.h"

namespace {

std::atomic<bool> m_bMainRunning{false};
std::atomic<int> m_nExitCode{0};

}  // namespace

void SigHandler(int sig) {
    LOG_ENTRY(LOGGING_SEVERITY_INFO, false, Util::Format("SigHandler: Caught signal: %d, shutting down...", sig));
    // Only SIGTERM is a clean stop.
    m_nExitCode = (sig == SIGTERM) ? 0 : sig;
    m_bMainRunning = false;
    // Commands and pauses then end soon, even one that hangs.
    RequestStop();
}

// After a pass that ran commands (a build above all, whose look parses three
// listings), the heap's freed pages go back to the kernel: they would stay
// resident for the daemon's life otherwise. A pass that ran none pays nothing.
void ReleaseFreedHeap(unsigned long& commandsAtTrim) {
    const unsigned long commands = CommandsRun();
    if (commands == commandsAtTrim) return;
    commandsAtTrim = commands;
    malloc_trim(0);
}

void ShowUsage(CliProcessing& cli) {
    puts(
        "tessel-networkd: keeps the device's bridge, veth pairs, isolation rules, addresses and PHY mode as "
        "configured");
    std::string options = cli.GetUsage(40);
    printf("Usage: tessel-networkd [OPTIONS]\nOptions:\n%s\n", options.c_str());
    fflush(stdout);
}

// What the command line asks for; the paths cannot change after it is read.
struct DAEMON_OPTIONS {
    std::string m_configPath;
    std::string m_statusDirectory;
    std::string m_phyFile;
    std::string m_metricsDirectory;
};

// Reads the command line into `options`: -1 to run, or the exit status when
// it asked for help or the version, or was wrong. The parser and its texts
// are gone once it returns, not kept on the heap for the daemon's life.
int ReadOptions(int argc, char** argv, DAEMON_OPTIONS& options) {
    CliProcessing cli;
    cli.AddParam("00help", "--help", "-h", PARAM_OVERRIDE, true, "Shows this help", "");
    cli.AddParam("01cfg-file", "--config", "-c", PARAM_MANDATORY, false, "Path to config file", "");
    cli.AddParam("02status-dir", "--status-dir", "-s", PARAM_OPTIONAL, false,
                 "Directory of the status document (default /run/tessel-networkd)", "");
    cli.AddParam("03version", "--version", "-V", PARAM_OVERRIDE, true, "Shows the version and the source revision", "");
    cli.AddParam("04phy-file", "--phy-file", "-p", PARAM_OPTIONAL, false,
                 std::string("PHY driver's file the PHY mode is written to (default ") + kPhyModeFile + ")", "");
    cli.AddParam("05metrics-dir", "--metrics-dir", "-m", PARAM_OPTIONAL, false,
                 std::string("Directory (the node exporter's textfile one) to keep the status in as Prometheus "
                             "metrics too, as ") +
                     kMetricsFileName + " (default: none)",
                 "");
    if (cli.ProcessCmdLine(argc, argv) != 0) {
        ShowUsage(cli);
        return 1;
    }
    if (!cli["00help"].empty()) {
        ShowUsage(cli);
        return 0;
    }
    if (!cli["03version"].empty()) {
        puts(Util::VersionLine("tessel-networkd").c_str());
        return 0;
    }
    options.m_configPath = cli["01cfg-file"];
    options.m_statusDirectory = cli["02status-dir"].empty() ? kStatusDirectory : cli["02status-dir"];
    options.m_phyFile = cli["04phy-file"];
    options.m_metricsDirectory = cli["05metrics-dir"];
    return -1;
}

int main(int argc, char** argv) {
    Logging::SetLogToStdout(true);
    // Under the service manager each entry carries its priority into the journal.
    Logging::UsePriorityPrefixIfStdoutIsJournal();
    Logging::SetLogLevel(Logging::LOGGING_SEVERITY_INFO);
    LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "tessel-networkd starting");

    // Raised before any handler can clear it: a stop signal taken while a start-up
    // command runs must not be undone when the loop is entered.
    m_bMainRunning = true;
    InstallStopHandler(SigHandler);
    signal(SIGPIPE, SIG_IGN);
    BlockStopSignals();

    DAEMON_OPTIONS options;
    if (const int status = ReadOptions(argc, argv, options); status >= 0) return status;
    LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "Using config file: " + options.m_configPath);

    const std::string& statusDirectory = options.m_statusDirectory;
    // Before any command: a second daemon must not touch what the first one keeps.
    const INSTANCE_LOCK instance = TakeInstanceLock(statusDirectory);
    if (instance.m_bHeldByOther) {
        LOG_ENTRY(LOGGING_SEVERITY_ERROR, false, DescribeOtherInstance(instance));
        return kExitAnotherInstance;
    }
    if (!instance.m_problem.empty()) {
        LOG_ENTRY(LOGGING_SEVERITY_WARN, false,
                  "Cannot take the instance lock (" + instance.m_problem + "); a second daemon would not be refused");
    }

    CYCLE_STATE state;
    if (!options.m_phyFile.empty()) state.m_phyModeFile = options.m_phyFile;

    LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "Bringing up loopback lo");
    RunStartupCommands(state);

    const std::string& configPath = options.m_configPath;
    // The status document follows each pass; it is written only when what it shows changed.
    STATUS_WRITER status;
    StartStatus(status, statusDirectory, configPath);
    status.m_metricsDirectory = options.m_metricsDirectory;
    UpdateStatus(status, state);
    // Passes come once a second, and sooner when the kernel or the files report a change.
    EVENT_WATCH watch = OpenEventWatch(configPath);
    bool ready = false;
    // A configuration applied and not confirmed in time is put back before the
    // pass reads it: looked at once now, then when its directory changes.
    PENDING_STATE pending;
    unsigned long commandsAtTrim = 0;
    do {
        if (watch.m_bPendingLookDue || watch.m_nConfigWatch < 0) pending.m_bLookDue = true;
        watch.m_bPendingLookDue = false;
        if (SupervisePendingConfig(configPath, pending)) {
            m_nExitCode = kExitRestoreAtStart;
            break;
        }
        RunSupervisionCycle(configPath, state);
        // eth1's link is read again only after the kernel reported an owned
        // link, or where it gives no reports.
        status.m_bEth1LinkDue = status.m_bEth1LinkDue || watch.m_bLinksReported || !watch.m_kernel.IsOpen();
        watch.m_bLinksReported = false;
        UpdateStatus(status, state);
        ReleaseFreedHeap(commandsAtTrim);
        if (!ready) {
            NotifyReady();
            ready = true;
        }
        NotifyWatchdog();
        AwaitNextPass(watch, state, 1000);
    } while (m_bMainRunning);
    NotifyStopping();

    LOG_ENTRY(LOGGING_SEVERITY_INFO, false,
              Util::Format("tessel-networkd exiting with code of %d", m_nExitCode.load()));
    return m_nExitCode;
}
