// The status as Prometheus metrics: one family after the other, each with its
// HELP and TYPE lines, from the snapshot the document is built from.
#include "src/NetworkStatusMetrics.h"

#include <time.h>

#include <cstdio>
#include <string>

#include "src/NetworkConfig.h"
#include "src/NetworkStatusJson.h"
#include "src/NetworkStatusSnapshot.h"

namespace {

#define NOINLINE __attribute__((noinline))

constexpr const char kPrefix[] = "tessel_networkd_";

// Writes families and their samples; names get the prefix here, once.
class MetricsWriter {
public:
    explicit MetricsWriter(std::string& text) : m_text(text) {}

    NOINLINE void Family(const char* name, const char* type, const char* help) {
        m_text.append("# HELP ").append(kPrefix).append(name).append(" ").append(help).append("\n");
        m_text.append("# TYPE ").append(kPrefix).append(name).append(" ").append(type).append("\n");
    }
    NOINLINE void Sample(const char* name, long long value) { Value(Name(name), value); }
    NOINLINE void Sample(const char* name, const char* label, const std::string& labelValue, long long value) {
        std::string& line = Name(name);
        line.append("{").append(label).append("=\"").append(MetricsLabelValue(labelValue)).append("\"}");
        Value(line, value);
    }
    NOINLINE void Flag(const char* name, bool value) { Sample(name, value ? 1 : 0); }
    NOINLINE void Flag(const char* name, const char* label, const std::string& labelValue, bool value) {
        Sample(name, label, labelValue, value ? 1 : 0);
    }

private:
    std::string& Name(const char* name) { return m_text.append(kPrefix).append(name); }
    static void Value(std::string& line, long long value) {
        char digits[24];
        snprintf(digits, sizeof digits, " %lld\n", value);
        line.append(digits);
    }

    std::string& m_text;
};

bool Ever(const timespec& at) { return at != timespec{}; }

// A work named as the document names it under "work".
struct NAMED_WORK {
    const char* m_name;
    const STATUS_WORK& m_work;
};

bool WorkDegrades(const STATUS_WORK& work) {
    return work.m_nFailures != 0 || (Ever(work.m_undoneAt) && work.m_bUndonePending);
}

// The isolation in one word: whole, ARP and IPv4 only, or neither.
const char* IsolationWord(const STATUS_ISOLATION& isolation) {
    if (!isolation.m_bRequired) return "not_required";
    if (!isolation.m_bInForce) return "not_in_force";
    return isolation.m_partial.empty() ? "in_force" : "partial";
}

void WriteWorks(MetricsWriter& out, const NAMED_WORK* works, size_t count) {
    out.Family("work_failing", "gauge", "1 while a kind of work is failing (retried after 1, 2, 4 ... 60 s).");
    for (size_t i = 0; i < count; ++i)
        out.Flag("work_failing", "work", works[i].m_name, works[i].m_work.m_nFailures != 0);
    out.Family("work_failures", "gauge", "Failed attempts of a kind of work since its last success.");
    for (size_t i = 0; i < count; ++i)
        out.Sample("work_failures", "work", works[i].m_name, works[i].m_work.m_nFailures);
    out.Family("work_last_failure_timestamp_seconds", "gauge",
               "When a kind of work last failed, in seconds since 1970; absent when it never did.");
    for (size_t i = 0; i < count; ++i) {
        if (Ever(works[i].m_work.m_failedAt)) {
            out.Sample("work_last_failure_timestamp_seconds", "work", works[i].m_name,
                       works[i].m_work.m_failedAt.tv_sec);
        }
    }
    out.Family("work_outside_changes", "gauge", "Outside changes in a row that undid a kind of work.");
    for (size_t i = 0; i < count; ++i) {
        out.Sample("work_outside_changes", "work", works[i].m_name, works[i].m_work.m_nUndone);
    }
    out.Family("work_undone", "gauge", "1 while an outside change to a kind of work is not yet repaired.");
    for (size_t i = 0; i < count; ++i) {
        out.Flag("work_undone", "work", works[i].m_name,
                 Ever(works[i].m_work.m_undoneAt) && works[i].m_work.m_bUndonePending);
    }
}

struct NAMED_INTERFACE {
    const char* m_name;
    const STATUS_INTERFACE& m_iface;
};

void WriteInterfaces(MetricsWriter& out, const NAMED_INTERFACE* ifaces, size_t count) {
    out.Family("interface_address", "gauge", "1 when a served interface has its address in force.");
    for (size_t i = 0; i < count; ++i) {
        if (ifaces[i].m_iface.m_bShown)
            out.Flag("interface_address", "interface", ifaces[i].m_name, ifaces[i].m_iface.m_bInForce);
    }
    out.Family("interface_dhcp", "gauge", "1 when a served interface is asked to take its address by DHCP, 0 static.");
    for (size_t i = 0; i < count; ++i) {
        const STATUS_INTERFACE& iface = ifaces[i].m_iface;
        if (iface.m_bShown && iface.m_bRequested)
            out.Flag("interface_dhcp", "interface", ifaces[i].m_name, iface.m_requested.m_bDhcp);
    }
    out.Family("lease_timestamp_seconds", "gauge",
               "When the DHCP lease in force was taken up, in seconds since 1970; absent without one. "
               "Its age is time() minus this.");
    for (size_t i = 0; i < count; ++i) {
        const STATUS_INTERFACE& iface = ifaces[i].m_iface;
        if (iface.m_bShown && Ever(iface.m_leaseAt)) {
            out.Sample("lease_timestamp_seconds", "interface", ifaces[i].m_name, iface.m_leaseAt.tv_sec);
        }
    }
    out.Family("dhcp_client_starts_total", "counter",
               "DHCP clients started for an interface since the daemon started.");
    for (size_t i = 0; i < count; ++i) {
        if (ifaces[i].m_iface.m_bShown) {
            out.Sample("dhcp_client_starts_total", "interface", ifaces[i].m_name, ifaces[i].m_iface.m_nClientStarts);
        }
    }
}

}  // namespace

STATUS_STATE StatusState(const STATUS_SNAPSHOT& s) {
    if (!s.m_bConfigRead) return STATUS_STATE_STARTING;
    bool bDegraded = !s.m_bConfigUsable;
    for (const STATUS_WORK* work :
         {&s.m_startup, &s.m_bridge, &s.m_registers, &s.m_phy, &s.m_veth1.m_work, &s.m_veth3.m_work,
          &s.m_isolation.m_work, &s.m_links, &s.m_ports, &s.m_macs, &s.m_eth0Port}) {
        bDegraded = bDegraded || WorkDegrades(*work);
    }
    bDegraded = bDegraded || !s.m_veth1.m_bInForce || (s.m_veth3.m_bShown && !s.m_veth3.m_bInForce);
    bDegraded = bDegraded || (s.m_bEth0Used && !s.m_bEth0LinkUp);
    bDegraded =
        bDegraded || (s.m_isolation.m_bRequired && (!s.m_isolation.m_bInForce || !s.m_isolation.m_partial.empty()));
    return bDegraded ? STATUS_STATE_DEGRADED : STATUS_STATE_HEALTHY;
}

std::string MetricsLabelValue(const std::string& text) {
    std::string escaped;
    escaped.reserve(text.size());
    for (const char c : text) {
        if (c == '\\' || c == '"') {
            escaped += '\\';
            escaped += c;
        } else if (c == '\n') {
            escaped += "\\n";
        } else {
            escaped += c;
        }
    }
    return escaped;
}

std::string StatusMetrics(const STATUS_DAEMON& daemon, const STATUS_SNAPSHOT& s) {
    std::string text;
    text.reserve(8192);
    MetricsWriter out(text);
    out.Family("info", "gauge", "The daemon's version; always 1.");
    out.Sample("info", "version", daemon.m_version, 1);
    out.Family("start_time_seconds", "gauge", "When the daemon started, in seconds since 1970.");
    out.Sample("start_time_seconds", daemon.m_startedAt.tv_sec);

    out.Family("state", "gauge",
               "The device's state as tessel-networkctl status judges it: 1 for the current one (starting, healthy, "
               "degraded).");
    const STATUS_STATE state = StatusState(s);
    out.Flag("state", "state", "starting", state == STATUS_STATE_STARTING);
    out.Flag("state", "state", "healthy", state == STATUS_STATE_HEALTHY);
    out.Flag("state", "state", "degraded", state == STATUS_STATE_DEGRADED);

    out.Family("configuration_usable", "gauge", "1 when the last read of the configuration file was usable.");
    out.Flag("configuration_usable", s.m_bConfigRead && s.m_bConfigUsable);
    out.Family("configuration_problems", "gauge", "Problems the last read of the configuration file found.");
    out.Sample("configuration_problems", static_cast<long long>(s.m_configProblems.size()));
    out.Family("bridge_mode", "gauge", "The bridge mode in force, always 1; absent while no build is in force.");
    if (s.m_bBridgeInForce) out.Sample("bridge_mode", "mode", BridgeModeWord(s.m_eBridgeMode), 1);
    out.Family("phy_mode", "gauge", "The PHY mode in force, always 1; absent while none is.");
    if (s.m_bPhyInForce) out.Sample("phy_mode", "mode", PhyModeWord(s.m_ePhyMode), 1);

    out.Family("isolation", "gauge",
               "The two-port isolation of eth0 and eth1: 1 for its current state (not_required, in_force, partial: "
               "ARP and IPv4 only, not_in_force).");
    const std::string isolation = IsolationWord(s.m_isolation);
    for (const char* word : {"not_required", "in_force", "partial", "not_in_force"}) {
        out.Flag("isolation", "state", word, isolation == word);
    }
    out.Family("isolation_verified_timestamp_seconds", "gauge",
               "When a look last found the isolation whole, in seconds since 1970; absent when none has.");
    if (Ever(s.m_isolation.m_verifiedAt)) {
        out.Sample("isolation_verified_timestamp_seconds", s.m_isolation.m_verifiedAt.tv_sec);
    }

    out.Family("eth0_used", "gauge", "1 when the bridge in force has eth0 as a port.");
    out.Flag("eth0_used", s.m_bEth0Used);
    out.Family("eth0_link_up", "gauge", "1 when eth0's link is up, 0 down; absent when eth0 is not used.");
    if (s.m_bEth0Used) out.Flag("eth0_link_up", s.m_bEth0LinkUp);
    out.Family("eth0_recoveries_total", "counter",
               "eth0 links found down and bounced, with its register writes, since the daemon started.");
    out.Sample("eth0_recoveries_total", s.m_nEth0Recoveries);
    out.Family("eth0_last_recovery_timestamp_seconds", "gauge",
               "When eth0 was last bounced, in seconds since 1970; absent when never.");
    if (Ever(s.m_eth0RecoveredAt)) out.Sample("eth0_last_recovery_timestamp_seconds", s.m_eth0RecoveredAt.tv_sec);
    out.Family("eth0_recovery_streak", "gauge", "Recoveries of eth0 in the streak going on; 0 when none is.");
    out.Sample("eth0_recovery_streak", s.m_nEth0StreakRecoveries);
    out.Family("eth1_link_up", "gauge", "1 when eth1's link is up, 0 down; absent when not known.");
    if (s.m_eEth1Link != STATUS_LINK_UNKNOWN) out.Flag("eth1_link_up", s.m_eEth1Link == STATUS_LINK_UP);

    const NAMED_INTERFACE ifaces[] = {{"veth1", s.m_veth1}, {"veth3", s.m_veth3}};
    WriteInterfaces(out, ifaces, sizeof ifaces / sizeof ifaces[0]);
    const NAMED_WORK works[] = {
        {"startup", s.m_startup},
        {"bridge", s.m_bridge},
        {"registers", s.m_registers},
        {"phy", s.m_phy},
        {"veth1", s.m_veth1.m_work},
        {"veth3", s.m_veth3.m_work},
        {"isolation", s.m_isolation.m_work},
        {"links", s.m_links},
        {"ports", s.m_ports},
        {"macs", s.m_macs},
        {"eth0_port", s.m_eth0Port},
    };
    WriteWorks(out, works, sizeof works / sizeof works[0]);
    return text;
}
