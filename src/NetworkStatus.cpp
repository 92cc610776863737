// The status document: a snapshot of the cycle's state after each pass, and the
// JSON text written, in one step, only when the snapshot changed.
#include "src/NetworkStatus.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "logging/Logging.h"
#include "src/NetworkModes.h"
#include "util/UniqueFd.h"
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

// One call a member rather than its code at every place: the document's
// functions stay small (GCC's and clang's attribute).
#define NOINLINE __attribute__((noinline))

// Writes JSON members one after the other, each on a line of its own, indented
// by its depth; commas and quotes are its business. Small on purpose: the
// document is built only when it changed, and the daemon's size counts on the device.
class JsonWriter {
public:
    explicit JsonWriter(std::string& text) : m_text(text) {}

    // An object or array as a member (`name`), an element (nullptr) or the document.
    NOINLINE void Open(const char* name, char bracket) {
        Member(name);
        m_text += bracket;
        ++m_depth;
        m_bFirst = true;
    }
    NOINLINE void Close(char bracket) {
        --m_depth;
        if (!m_bFirst) Indent();
        m_text += bracket;
        m_bFirst = false;
    }
    NOINLINE void String(const char* name, const std::string& value) {
        Member(name);
        m_text += Util::JsonString(value);
    }
    NOINLINE void Literal(const char* name, const char* value) {
        Member(name);
        m_text += value;
    }
    NOINLINE void Bool(const char* name, bool value) { Literal(name, value ? "true" : "false"); }
    NOINLINE void Null(const char* name) { Literal(name, "null"); }
    NOINLINE void Number(const char* name, long long value) {
        char digits[24];
        snprintf(digits, sizeof digits, "%lld", value);
        Literal(name, digits);
    }
    // Dotted, or null when absent.
    NOINLINE void Address(const char* name, bool bPresent, in_addr address) {
        char text[INET_ADDRSTRLEN] = {};
        if (!bPresent || inet_ntop(AF_INET, &address, text, sizeof text) == nullptr) return Null(name);
        String(name, text);
    }
    // ISO 8601 with the zone, or null for the zero time.
    NOINLINE void Time(const char* name, const timespec& t) {
        if (IsZero(t)) return Null(name);
        String(name, Util::FormatIsoTime(t));
    }

private:
    NOINLINE void Indent() {
        m_text += '\n';
        m_text.append(2 * static_cast<size_t>(m_depth), ' ');
    }
    NOINLINE void Member(const char* name) {
        if (m_depth > 0) {
            if (!m_bFirst) m_text += ',';
            Indent();
        }
        m_bFirst = false;
        if (name != nullptr) {
            m_text += Util::JsonString(name);
            m_text += ": ";
        }
    }

    std::string& m_text;
    int m_depth = 0;
    bool m_bFirst = true;
};

void WriteWork(JsonWriter& json, const char* name, const STATUS_WORK& work) {
    json.Open(name, '{');
    json.Bool("failing", work.m_nFailures != 0);
    json.Number("failures", work.m_nFailures);
    if (IsZero(work.m_failedAt)) {
        json.Null("last_failure");
    } else {
        json.Open("last_failure", '{');
        json.String("command", work.m_command);
        json.String("outcome", DescribeOutcome(work.m_outcome));
        json.Time("at", work.m_failedAt);
        json.Close('}');
    }
    json.Time("recovered_at", work.m_recoveredAt);
    json.Close('}');
}

void WriteInterface(JsonWriter& json, const char* name, const STATUS_INTERFACE& iface) {
    json.Open(nullptr, '{');
    json.String("name", name);
    if (iface.m_bRequested) {
        json.String("addressing", iface.m_requested.m_bDhcp ? "dhcp" : "static");
    } else {
        json.Null("addressing");
    }
    if (iface.m_bRequested && !iface.m_requested.m_bDhcp) {
        json.Open("requested", '{');
        json.Address("address", true, iface.m_requested.m_ipAddress);
        json.Address("mask", true, iface.m_requested.m_subnetMask);
        json.Address("gateway", iface.m_requested.m_gateway.s_addr != 0, iface.m_requested.m_gateway);
        json.Close('}');
    } else {
        json.Null("requested");
    }
    json.Address("address", iface.m_bInForce, iface.m_address);
    json.Address("mask", iface.m_bInForce, iface.m_mask);
    json.Address("gateway", iface.m_bInForce && iface.m_gateway.s_addr != 0, iface.m_gateway);
    json.Number("metric", iface.m_nMetric);
    json.Bool("from_dhcp", iface.m_bFromDhcp);
    json.Time("lease_at", iface.m_leaseAt);
    json.Open("dhcp_client", '{');
    if (iface.m_clientPid != 0) {
        json.Number("pid", iface.m_clientPid);
    } else {
        json.Null("pid");
    }
    json.Number("starts", iface.m_nClientStarts);
    json.Close('}');
    WriteWork(json, "work", iface.m_work);
    json.Close('}');
}

// --- the file -----------------------------------------------------------------

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
    Util::UniqueFd file(openat(directoryFd, kTemporaryName, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!file.IsOpen()) {
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
           a.m_bridge == b.m_bridge && a.m_registers == b.m_registers && a.m_phy == b.m_phy && a.m_veth1 == b.m_veth1 &&
           a.m_veth3 == b.m_veth3;
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
    // Written in every usable pass that found it due: once one has run, the mode
    // last written is in force (a failed bounce of eth1 after it is the PHY work's).
    snapshot.m_bPhyInForce = !state.m_bFirstCycle;
    snapshot.m_ePhyMode = snapshot.m_bPhyInForce ? state.m_eLastPhyMode : PHY_MODE_COPPER;
    snapshot.m_bEth0Used = snapshot.m_bBridgeInForce && BridgesEth0(snapshot.m_eBridgeMode);
    snapshot.m_bEth0LinkUp = snapshot.m_bEth0Used && state.m_bEth0LinkUp;
    snapshot.m_nEth0Recoveries = state.m_nEth0Recoveries;
    snapshot.m_eth0RecoveredAt = state.m_eth0RecoveredAt;
    TakeWork(state.m_startupHealth, snapshot.m_startup);
    TakeWork(state.m_bridgeHealth, snapshot.m_bridge);
    TakeWork(state.m_registerHealth, snapshot.m_registers);
    TakeWork(state.m_phyHealth, snapshot.m_phy);

    // veth3 is served in the two-port mode: the one asked for, or else the one in force.
    const BRIDGE_MODE servedMode = snapshot.m_bConfigured ? snapshot.m_eConfiguredBridgeMode : snapshot.m_eBridgeMode;
    const bool bTwoPort = (snapshot.m_bConfigured || snapshot.m_bBridgeInForce) && servedMode == BRIDGE_MODE_ETH0ETH1;
    TakeInterface(state, state.m_settings.m_veth1Config, state.m_veth1, kVeth1Metric, true, snapshot.m_bConfigured,
                  snapshot.m_veth1);
    TakeInterface(state, state.m_settings.m_veth3Config, state.m_veth3, kVeth3Metric, bTwoPort, snapshot.m_bConfigured,
                  snapshot.m_veth3);
}

std::string StatusJson(const STATUS_DAEMON& daemon, const STATUS_SNAPSHOT& s) {
    std::string text;
    text.reserve(3072);
    JsonWriter json(text);
    json.Open(nullptr, '{');
    json.Number("schema", kStatusSchema);
    json.Open("daemon", '{');
    json.String("version", daemon.m_version);
    json.Number("pid", daemon.m_pid);
    json.Time("started", daemon.m_startedAt);
    json.Close('}');

    json.Open("configuration", '{');
    json.String("path", daemon.m_configPath);
    json.Bool("read", s.m_bConfigRead);
    json.Bool("usable", s.m_bConfigUsable);
    json.Open("problems", '[');
    for (const std::string& problem : s.m_configProblems) json.String(nullptr, problem);
    json.Close(']');
    if (s.m_bConfigured) {
        json.String("bridge_mode", BridgeModeWord(s.m_eConfiguredBridgeMode));
        json.String("phy_mode", PhyModeWord(s.m_eConfiguredPhyMode));
    } else {
        json.Null("bridge_mode");
        json.Null("phy_mode");
    }
    json.Close('}');

    if (s.m_bBridgeInForce) {
        json.String("bridge_mode", BridgeModeWord(s.m_eBridgeMode));
    } else {
        json.Null("bridge_mode");
    }
    if (s.m_bPhyInForce) {
        json.String("phy_mode", PhyModeWord(s.m_ePhyMode));
    } else {
        json.Null("phy_mode");
    }
    json.Open("eth0", '{');
    json.Bool("used", s.m_bEth0Used);
    if (s.m_bEth0Used) {
        json.String("link", s.m_bEth0LinkUp ? "up" : "down");
    } else {
        json.Null("link");
    }
    json.Number("recoveries", s.m_nEth0Recoveries);
    json.Time("last_recovery", s.m_eth0RecoveredAt);
    json.Close('}');

    json.Open("interfaces", '[');
    WriteInterface(json, "veth1", s.m_veth1);
    if (s.m_veth3.m_bShown) WriteInterface(json, "veth3", s.m_veth3);
    json.Close(']');

    json.Open("work", '{');
    WriteWork(json, "startup", s.m_startup);
    WriteWork(json, "bridge", s.m_bridge);
    WriteWork(json, "registers", s.m_registers);
    WriteWork(json, "phy", s.m_phy);
    WriteWork(json, "veth1", s.m_veth1.m_work);
    WriteWork(json, "veth3", s.m_veth3.m_work);
    json.Close('}');
    json.Close('}');
    text += '\n';
    return text;
}

bool WriteStatusFile(const std::string& directory, const std::string& text, std::string& error) {
    const bool bCreated = mkdir(directory.c_str(), 0755) == 0;
    if (!bCreated && errno != EEXIST) {
        error = Reason("cannot create " + directory);
        return false;
    }
    // O_NOFOLLOW: a symbolic link put where the directory should be is refused, not followed.
    const Util::UniqueFd dir(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!dir.IsOpen()) {
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
