// The status document: a snapshot of the cycle's state after each pass, and the
// JSON text written, in one step, only when the snapshot changed.
#include "src/NetworkStatus.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "logging/Logging.h"
#include "util/Util.h"

#ifndef TESSEL_VERSION
#define TESSEL_VERSION "unknown"
#endif

namespace {

bool SameTime(const timespec& a, const timespec& b) { return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec; }
bool IsZero(const timespec& t) { return t.tv_sec == 0 && t.tv_nsec == 0; }

void TakeWork(const WORK_HEALTH& health, STATUS_WORK& work) {
    work.m_nFailures = health.m_nFailures;
    const bool bEverFailed = !IsZero(health.m_failedAt);
    // assign() keeps the text's storage: no allocation once it has held a command this long.
    work.m_command.assign(bEverFailed ? health.m_lastFailure.m_command : std::string());
    work.m_outcome = bEverFailed ? health.m_lastFailure.m_outcome : COMMAND_OUTCOME{};
    work.m_failedAt = health.m_failedAt;
    work.m_recoveredAt = health.m_recoveredAt;
}

// The addressing as asked for; a DHCP request carries no addresses.
IP_CONFIG Requested(const IP_CONFIG& config) {
    IP_CONFIG requested{};
    requested.m_bDhcp = config.m_bDhcp;
    if (!config.m_bDhcp) requested = config;
    return requested;
}

void TakeInterface(const CYCLE_STATE& state, const IP_CONFIG& configured, const INTERFACE_STATE& iface,
                   unsigned int metric, bool bShown, bool bConfigured, STATUS_INTERFACE& shown) {
    shown.m_bShown = bShown;
    shown.m_nMetric = metric;
    TakeWork(iface.m_health, shown.m_work);
    // Serviced at least once: what it was last asked for is what a usable file asked.
    const bool bServiced = !state.m_bFirstCycle;
    shown.m_bRequested = bShown && (bConfigured || bServiced);
    shown.m_requested = shown.m_bRequested ? Requested(bConfigured ? configured : iface.m_applied) : IP_CONFIG{};
    // Set up without a failure since: a static address is in force; a DHCP
    // interface has one once its lease is.
    const bool bSetUp = bShown && bServiced && !iface.m_bReconfigure;
    const bool bStatic = bSetUp && !iface.m_applied.m_bDhcp;
    const bool bLease = bSetUp && iface.m_applied.m_bDhcp && iface.m_dhcp.m_bLeaseValid && !iface.m_bLeasePending;
    shown.m_bInForce = bStatic || bLease;
    shown.m_bFromDhcp = bLease;
    shown.m_address = bStatic ? iface.m_applied.m_ipAddress : bLease ? iface.m_dhcp.m_ipAddress : in_addr{};
    shown.m_mask = bStatic ? iface.m_applied.m_subnetMask : bLease ? iface.m_dhcp.m_subnetMask : in_addr{};
    shown.m_gateway = bStatic ? iface.m_applied.m_gateway : bLease ? iface.m_dhcp.m_gateway : in_addr{};
    shown.m_leaseAt = bLease ? iface.m_leaseAt : timespec{};
    shown.m_clientPid = bShown ? iface.m_clientPid : 0;
    shown.m_nClientStarts = iface.m_nClientStarts;
}

// --- the text -----------------------------------------------------------------

const char* BridgeModeName(BRIDGE_MODE mode) {
    switch (mode) {
        case BRIDGE_MODE_ETH0:
            return "eth0";
        case BRIDGE_MODE_ETH1:
            return "eth1";
        case BRIDGE_MODE_ETH0ETH1:
            return "eth0eth1";
    }
    return "unknown";
}

// The configuration file's words: "frame" is SGMII, anything else copper.
const char* PhyModeName(PHY_MODE mode) { return mode == PHY_MODE_SGMII ? "frame" : "copper"; }

std::string Dotted(in_addr address) {
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &address, text, sizeof text);
    return text;
}

std::string Time(const timespec& t) { return IsZero(t) ? "null" : Util::JsonString(Util::FormatIsoTime(t)); }

std::string OrNull(bool bPresent, const std::string& value) { return bPresent ? value : "null"; }

std::string Work(const STATUS_WORK& work) {
    std::string text = "{\"failing\": " + std::string(work.m_nFailures != 0 ? "true" : "false");
    text += ", \"failures\": " + std::to_string(work.m_nFailures);
    text += ", \"last_failure\": ";
    if (IsZero(work.m_failedAt)) {
        text += "null";
    } else {
        text += "{\"command\": " + Util::JsonString(work.m_command);
        text += ", \"outcome\": " + Util::JsonString(DescribeOutcome(work.m_outcome));
        text += ", \"at\": " + Time(work.m_failedAt) + "}";
    }
    text += ", \"recovered_at\": " + Time(work.m_recoveredAt) + "}";
    return text;
}

std::string Interface(const char* name, const STATUS_INTERFACE& iface) {
    std::string text = "    {\n      \"name\": " + Util::JsonString(name) + ",\n";
    text += "      \"addressing\": ";
    text += OrNull(iface.m_bRequested, Util::JsonString(iface.m_requested.m_bDhcp ? "dhcp" : "static")) + ",\n";
    text += "      \"requested\": ";
    if (iface.m_bRequested && !iface.m_requested.m_bDhcp) {
        text += "{\"address\": " + Util::JsonString(Dotted(iface.m_requested.m_ipAddress)) +
                ", \"mask\": " + Util::JsonString(Dotted(iface.m_requested.m_subnetMask)) + ", \"gateway\": " +
                OrNull(iface.m_requested.m_gateway.s_addr != 0, Util::JsonString(Dotted(iface.m_requested.m_gateway))) +
                "},\n";
    } else {
        text += "null,\n";
    }
    text += "      \"address\": " + OrNull(iface.m_bInForce, Util::JsonString(Dotted(iface.m_address))) + ",\n";
    text += "      \"mask\": " + OrNull(iface.m_bInForce, Util::JsonString(Dotted(iface.m_mask))) + ",\n";
    text += "      \"gateway\": " +
            OrNull(iface.m_bInForce && iface.m_gateway.s_addr != 0, Util::JsonString(Dotted(iface.m_gateway))) + ",\n";
    text += "      \"metric\": " + std::to_string(iface.m_nMetric) + ",\n";
    text += "      \"from_dhcp\": " + std::string(iface.m_bFromDhcp ? "true" : "false") + ",\n";
    text += "      \"lease_at\": " + Time(iface.m_leaseAt) + ",\n";
    text += "      \"dhcp_client\": {\"pid\": " +
            OrNull(iface.m_clientPid != 0, std::to_string(static_cast<long>(iface.m_clientPid))) +
            ", \"starts\": " + std::to_string(iface.m_nClientStarts) + "},\n";
    text += "      \"work\": " + Work(iface.m_work) + "\n    }";
    return text;
}

// --- the file -----------------------------------------------------------------

// A descriptor closed on every path out of the call that opened it.
class Descriptor {
public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    ~Descriptor() {
        if (m_fd >= 0) close(m_fd);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int Get() const { return m_fd; }
    // Closes now; false (errno set) when the close reported an error.
    bool Close() {
        const int fd = m_fd;
        m_fd = -1;
        return close(fd) == 0;
    }

private:
    int m_fd;
};

const char kTemporaryName[] = ".status.json.new";

std::string Reason(const std::string& what) { return what + ": " + strerror(errno); }

bool WriteAll(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t count = write(fd, text.data() + done, text.size() - done);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        done += static_cast<size_t>(count);
    }
    return true;
}

// Writes the temporary file in the directory and renames it over the document.
bool ReplaceIn(int directoryFd, const std::string& text, std::string& error) {
    // A file left by a write that broke off is ours to remove.
    if (unlinkat(directoryFd, kTemporaryName, 0) != 0 && errno != ENOENT) {
        error = Reason(std::string("cannot remove ") + kTemporaryName);
        return false;
    }
    Descriptor file(openat(directoryFd, kTemporaryName, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (file.Get() < 0) {
        error = Reason(std::string("cannot create ") + kTemporaryName);
        return false;
    }
    bool bDone = true;
    // 0644 whatever the umask.
    if (fchmod(file.Get(), 0644) != 0) {
        error = Reason("cannot set its mode");
        bDone = false;
    } else if (!WriteAll(file.Get(), text)) {
        error = Reason("cannot write it");
        bDone = false;
    }
    if (!file.Close() && bDone) {
        error = Reason("cannot close it");
        bDone = false;
    }
    if (bDone && renameat(directoryFd, kTemporaryName, directoryFd, kStatusFileName) != 0) {
        error = Reason(std::string("cannot rename it to ") + kStatusFileName);
        bDone = false;
    }
    if (!bDone) unlinkat(directoryFd, kTemporaryName, 0);
    return bDone;
}

}  // namespace

bool operator==(const STATUS_WORK& a, const STATUS_WORK& b) {
    return a.m_nFailures == b.m_nFailures && a.m_command == b.m_command && a.m_outcome == b.m_outcome &&
           SameTime(a.m_failedAt, b.m_failedAt) && SameTime(a.m_recoveredAt, b.m_recoveredAt);
}

bool operator==(const STATUS_INTERFACE& a, const STATUS_INTERFACE& b) {
    return a.m_bShown == b.m_bShown && a.m_bRequested == b.m_bRequested && a.m_requested == b.m_requested &&
           a.m_bInForce == b.m_bInForce && a.m_bFromDhcp == b.m_bFromDhcp && a.m_address.s_addr == b.m_address.s_addr &&
           a.m_mask.s_addr == b.m_mask.s_addr && a.m_gateway.s_addr == b.m_gateway.s_addr &&
           a.m_nMetric == b.m_nMetric && SameTime(a.m_leaseAt, b.m_leaseAt) && a.m_clientPid == b.m_clientPid &&
           a.m_nClientStarts == b.m_nClientStarts && a.m_work == b.m_work;
}

bool operator==(const STATUS_SNAPSHOT& a, const STATUS_SNAPSHOT& b) {
    return a.m_bConfigRead == b.m_bConfigRead && a.m_bConfigUsable == b.m_bConfigUsable &&
           a.m_configProblems == b.m_configProblems && a.m_bConfigured == b.m_bConfigured &&
           a.m_eConfiguredBridgeMode == b.m_eConfiguredBridgeMode && a.m_eConfiguredPhyMode == b.m_eConfiguredPhyMode &&
           a.m_bBridgeInForce == b.m_bBridgeInForce && a.m_eBridgeMode == b.m_eBridgeMode &&
           a.m_bPhyInForce == b.m_bPhyInForce && a.m_ePhyMode == b.m_ePhyMode && a.m_bEth0Used == b.m_bEth0Used &&
           a.m_bEth0LinkUp == b.m_bEth0LinkUp && a.m_nEth0Recoveries == b.m_nEth0Recoveries &&
           SameTime(a.m_eth0RecoveredAt, b.m_eth0RecoveredAt) && a.m_startup == b.m_startup &&
           a.m_bridge == b.m_bridge && a.m_veth1 == b.m_veth1 && a.m_veth3 == b.m_veth3;
}

void TakeStatusSnapshot(const CYCLE_STATE& state, STATUS_SNAPSHOT& snapshot) {
    snapshot.m_bConfigRead = state.m_bConfigRead;
    snapshot.m_bConfigUsable = state.m_bConfigUsable;
    snapshot.m_configProblems = state.m_configProblems;
    // An unusable read may have changed some settings; only a usable one says what is configured.
    snapshot.m_bConfigured = state.m_bConfigUsable;
    snapshot.m_eConfiguredBridgeMode = state.m_bConfigUsable ? state.m_settings.m_eBridgeMode : BRIDGE_MODE_ETH0;
    snapshot.m_eConfiguredPhyMode = state.m_bConfigUsable ? state.m_settings.m_ePhyMode : PHY_MODE_COPPER;
    snapshot.m_bBridgeInForce = !state.m_bBridgeSetupPending;
    snapshot.m_eBridgeMode = snapshot.m_bBridgeInForce ? state.m_eLastBridgeMode : BRIDGE_MODE_ETH0;
    snapshot.m_bPhyInForce = !state.m_bPhyModePending;
    snapshot.m_ePhyMode = snapshot.m_bPhyInForce ? state.m_eLastPhyMode : PHY_MODE_COPPER;
    snapshot.m_bEth0Used = snapshot.m_bBridgeInForce && BridgesEth0(snapshot.m_eBridgeMode);
    snapshot.m_bEth0LinkUp = snapshot.m_bEth0Used && state.m_bEth0LinkUp;
    snapshot.m_nEth0Recoveries = state.m_nEth0Recoveries;
    snapshot.m_eth0RecoveredAt = state.m_eth0RecoveredAt;
    TakeWork(state.m_startupHealth, snapshot.m_startup);
    TakeWork(state.m_bridgeHealth, snapshot.m_bridge);

    // veth3 is served in the two-port mode: the one asked for, or else the one in force.
    const BRIDGE_MODE servedMode = snapshot.m_bConfigured ? snapshot.m_eConfiguredBridgeMode : snapshot.m_eBridgeMode;
    const bool bTwoPort = (snapshot.m_bConfigured || snapshot.m_bBridgeInForce) && servedMode == BRIDGE_MODE_ETH0ETH1;
    TakeInterface(state, state.m_settings.m_veth1Config, state.m_veth1, kVeth1Metric, true, snapshot.m_bConfigured,
                  snapshot.m_veth1);
    TakeInterface(state, state.m_settings.m_veth3Config, state.m_veth3, kVeth3Metric, bTwoPort, snapshot.m_bConfigured,
                  snapshot.m_veth3);
}

std::string StatusJson(const STATUS_DAEMON& daemon, const STATUS_SNAPSHOT& s) {
    std::string text = "{\n  \"schema\": " + std::to_string(kStatusSchema) + ",\n";
    text += "  \"daemon\": {\"version\": " + Util::JsonString(daemon.m_version) +
            ", \"pid\": " + std::to_string(static_cast<long>(daemon.m_pid)) +
            ", \"started\": " + Time(daemon.m_startedAt) + "},\n";

    text += "  \"configuration\": {\n    \"path\": " + Util::JsonString(daemon.m_configPath) + ",\n";
    text += "    \"read\": " + std::string(s.m_bConfigRead ? "true" : "false") + ",\n";
    text += "    \"usable\": " + std::string(s.m_bConfigUsable ? "true" : "false") + ",\n";
    text += "    \"problems\": [";
    for (size_t i = 0; i < s.m_configProblems.size(); ++i) {
        text += (i == 0 ? "" : ", ") + Util::JsonString(s.m_configProblems[i]);
    }
    text += "],\n";
    text +=
        "    \"bridge_mode\": " + OrNull(s.m_bConfigured, Util::JsonString(BridgeModeName(s.m_eConfiguredBridgeMode))) +
        ",\n";
    text += "    \"phy_mode\": " + OrNull(s.m_bConfigured, Util::JsonString(PhyModeName(s.m_eConfiguredPhyMode))) +
            "\n  },\n";

    text +=
        "  \"bridge_mode\": " + OrNull(s.m_bBridgeInForce, Util::JsonString(BridgeModeName(s.m_eBridgeMode))) + ",\n";
    text += "  \"phy_mode\": " + OrNull(s.m_bPhyInForce, Util::JsonString(PhyModeName(s.m_ePhyMode))) + ",\n";
    text += "  \"eth0\": {\"used\": " + std::string(s.m_bEth0Used ? "true" : "false") +
            ", \"link\": " + OrNull(s.m_bEth0Used, s.m_bEth0LinkUp ? "\"up\"" : "\"down\"") +
            ", \"recoveries\": " + std::to_string(s.m_nEth0Recoveries) +
            ", \"last_recovery\": " + Time(s.m_eth0RecoveredAt) + "},\n";

    text += "  \"interfaces\": [\n" + Interface("veth1", s.m_veth1);
    if (s.m_veth3.m_bShown) text += ",\n" + Interface("veth3", s.m_veth3);
    text += "\n  ],\n";

    text += "  \"work\": {\n";
    text += "    \"startup\": " + Work(s.m_startup) + ",\n";
    text += "    \"bridge\": " + Work(s.m_bridge) + ",\n";
    text += "    \"veth1\": " + Work(s.m_veth1.m_work) + ",\n";
    text += "    \"veth3\": " + Work(s.m_veth3.m_work) + "\n";
    text += "  }\n}\n";
    return text;
}

bool WriteStatusFile(const std::string& directory, const std::string& text, std::string& error) {
    const bool bCreated = mkdir(directory.c_str(), 0755) == 0;
    if (!bCreated && errno != EEXIST) {
        error = Reason("cannot create " + directory);
        return false;
    }
    // O_NOFOLLOW: a symbolic link put where the directory should be is refused, not followed.
    Descriptor dir(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (dir.Get() < 0) {
        // ELOOP: a symbolic link; ENOTDIR: anything else that is no directory.
        error =
            errno == ELOOP || errno == ENOTDIR ? directory + " is not a directory" : Reason("cannot open " + directory);
        return false;
    }
    struct stat status {};
    if (fstat(dir.Get(), &status) != 0) {
        error = Reason("cannot examine " + directory);
        return false;
    }
    if (status.st_uid != geteuid()) {
        error = directory + " belongs to another user";
        return false;
    }
    // 0755 whatever the umask; one made by someone else is used only when nobody else can write it.
    if (bCreated && fchmod(dir.Get(), 0755) != 0) {
        error = Reason("cannot set the mode of " + directory);
        return false;
    }
    if (!bCreated && (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        error = directory + " is writable by others";
        return false;
    }
    return ReplaceIn(dir.Get(), text, error);
}

void StartStatus(STATUS_WRITER& writer, const std::string& directory, const std::string& configPath) {
    writer.m_directory = directory;
    writer.m_daemon.m_version = TESSEL_VERSION;
    writer.m_daemon.m_pid = getpid();
    writer.m_daemon.m_startedAt = Util::RealTimeNow();
    writer.m_daemon.m_configPath = configPath;
    writer.m_bWritten = false;
    writer.m_bFailureLogged = false;
}

void UpdateStatus(STATUS_WRITER& writer, const CYCLE_STATE& state) {
    TakeStatusSnapshot(state, writer.m_current);
    if (writer.m_bWritten && writer.m_current == writer.m_written) return;
    std::string error;
    const std::string path = writer.m_directory + "/" + kStatusFileName;
    if (!WriteStatusFile(writer.m_directory, StatusJson(writer.m_daemon, writer.m_current), error)) {
        // Once until a write works again: a read-only or full /run would otherwise fill the log.
        if (!writer.m_bFailureLogged) {
            LOG_ENTRY(LOGGING_SEVERITY_WARN, false, "Unable to write status file " + path + ": " + error);
            writer.m_bFailureLogged = true;
        }
        writer.m_bWritten = false;
        return;
    }
    if (writer.m_bFailureLogged) {
        LOG_ENTRY(LOGGING_SEVERITY_NOTICE, false, "Status file " + path + " written again");
        writer.m_bFailureLogged = false;
    }
    writer.m_written = writer.m_current;
    writer.m_bWritten = true;
}
