// The status document's text: each member on a line of its own, from a snapshot.
#include "src/NetworkStatusJson.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>

#include <cstddef>
#include <cstdio>
#include <string>

#include "src/NetworkConfig.h"
#include "src/NetworkShell.h"
#include "src/NetworkStatusSchema.h"
#include "src/NetworkStatusSnapshot.h"
#include "util/Encoding.h"
#include "util/Format.h"
#include "util/TextScan.h"

namespace {

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
        if (!bPresent) return Null(name);
        String(name, Util::DottedQuad(address));
    }
    // ISO 8601 with the zone, or null for the zero time.
    NOINLINE void Time(const char* name, const timespec& t) {
        if (t == timespec{}) return Null(name);
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

// An event that may never have happened: null when `at` is zero, otherwise an
// object opened for the caller to fill and close.
bool OpenUnlessNever(JsonWriter& json, const char* name, const timespec& at) {
    if (at == timespec{}) {
        json.Null(name);
        return false;
    }
    json.Open(name, '{');
    return true;
}

void WriteWork(JsonWriter& json, const char* name, const STATUS_WORK& work) {
    json.Open(name, '{');
    json.Bool("failing", work.m_nFailures != 0);
    json.Number("failures", work.m_nFailures);
    if (OpenUnlessNever(json, "last_failure", work.m_failedAt)) {
        json.String("command", work.m_command);
        json.String("outcome", DescribeOutcome(work.m_outcome));
        json.Time("at", work.m_failedAt);
        json.Close('}');
    }
    json.Time("recovered_at", work.m_recoveredAt);
    json.Number("outside_changes", work.m_nUndone);
    if (OpenUnlessNever(json, "last_outside_change", work.m_undoneAt)) {
        json.String("found", work.m_undone);
        json.Time("at", work.m_undoneAt);
        json.Bool("repaired", !work.m_bUndonePending);
        json.Close('}');
    }
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
    json.Address("lease_server", iface.m_leaseServer.s_addr != 0, iface.m_leaseServer);
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

}  // namespace

std::string StatusJson(const STATUS_DAEMON& daemon, const STATUS_SNAPSHOT& s) {
    std::string text;
    text.reserve(4096);
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
    json.Bool("last_usable_supervised", s.m_bLastUsableSupervised);
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
    if (s.m_nEth0StreakRecoveries != 0) {
        json.Open("streak", '{');
        json.Number("recoveries", s.m_nEth0StreakRecoveries);
        json.Time("since", s.m_eth0StreakSince);
        json.Close('}');
    } else {
        json.Null("streak");
    }
    json.Close('}');
    json.Open("eth1", '{');
    if (s.m_eEth1Link == STATUS_LINK_UNKNOWN) {
        json.Null("link");
    } else {
        json.String("link", s.m_eEth1Link == STATUS_LINK_UP ? "up" : "down");
    }
    json.Close('}');

    json.Open("isolation", '{');
    json.Bool("required", s.m_isolation.m_bRequired);
    json.Bool("in_force", s.m_isolation.m_bInForce);
    json.Time("verified_at", s.m_isolation.m_verifiedAt);
    if (s.m_isolation.m_problem.empty()) {
        json.Null("problem");
    } else {
        json.String("problem", s.m_isolation.m_problem);
    }
    // ARP and IPv4 only, and why: no link layer on this device.
    if (s.m_isolation.m_partial.empty()) {
        json.Null("partial");
    } else {
        json.String("partial", s.m_isolation.m_partial);
    }
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
    WriteWork(json, "isolation", s.m_isolation.m_work);
    WriteWork(json, "links", s.m_links);
    WriteWork(json, "ports", s.m_ports);
    WriteWork(json, "macs", s.m_macs);
    WriteWork(json, "eth0_port", s.m_eth0Port);
    json.Close('}');
    json.Close('}');
    text += '\n';
    return text;
}
