// What tessel-networkctl makes of the daemon's status document: whether the
// daemon that wrote it still runs, whether the device is as configured, and
// the table an operator reads.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

// The command's exit status for the device's state.
enum STATUS_HEALTH : int {
    STATUS_HEALTHY = 0,      // running, everything configured is in force
    STATUS_DEGRADED = 1,     // running, and something is wrong (the reasons say what)
    STATUS_NOT_RUNNING = 3,  // no daemon behind the document, or no document
};

// Whether `pid` is a live tessel-networkd process, as `procRoot` (/proc) shows
// it: its name, or one of its first arguments (an emulator's or an
// interpreter's), is tessel-networkd, and it is not a zombie.
bool DaemonRunning(long pid, const std::string& procRoot = "/proc");

// One reason the device is degraded, and what an operator can do about it.
struct CAUSE {
    std::string m_text;
    std::string m_advice;  // one short line
};

// Why the device is degraded by the document (empty: healthy), the first cause
// first (a configuration file the daemon cannot use before the works it stops,
// the bridge before the ports on it, the isolation before the addresses): the
// daemon still starting, a configuration file it cannot use, a failure not yet
// recovered or an outside change not yet repaired, eth0 down in a mode that
// bridges it, the two-port mode's isolation not in force (or not verified
// lately, or partial), an interface without the address it should have.
std::vector<CAUSE> Causes(const nlohmann::json& document);
// The causes' texts, in the same order.
std::vector<std::string> Degradations(const nlohmann::json& document);

// The document as a table for people. `running`: the daemon that wrote it still
// runs; `colour`: ANSI colours for a terminal. Every line fits 80 columns, long
// texts wrapped or cut with "..."; `full`: long texts whole, however wide.
std::string StatusTable(const nlohmann::json& document, bool running, const std::vector<std::string>& reasons,
                        bool colour, bool full = false);
