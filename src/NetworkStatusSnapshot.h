// What the status document shows, taken from the cycle's state after each pass:
// the snapshot, compared with the one last written so that the document is
// built and written only when something in it changed.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>
#include <time.h>

#include <string>
#include <vector>

#include "src/NetworkConfig.h"
#include "src/NetworkShell.h"

// Read from, never held: the snapshot is taken from it in NetworkStatusSnapshot.cpp.
struct CYCLE_STATE;

// One kind of work's health as the document shows it.
struct STATUS_WORK {
    unsigned int m_nFailures = 0;   // failed attempts since the last success; 0: healthy
    std::string m_command;          // the command of the last failure, empty when none
    COMMAND_OUTCOME m_outcome;      // how it ended
    timespec m_failedAt{};          // zero: never failed
    timespec m_recoveredAt{};       // zero: not recovered since
    unsigned int m_nUndone = 0;     // outside changes in a row (a fight when more than one)
    std::string m_undone;           // what the last one was, empty when none
    timespec m_undoneAt{};          // zero: never undone
    bool m_bUndonePending = false;  // its repair is still to succeed

    bool operator==(const STATUS_WORK&) const = default;
};

// One served interface as the document shows it.
struct STATUS_INTERFACE {
    bool m_bShown = false;      // in the document (veth3 only in the two-port mode)
    bool m_bRequested = false;  // addressing has been asked for by a usable file
    IP_CONFIG m_requested{};    // the addressing asked for
    bool m_bInForce = false;    // an address is in force
    bool m_bFromDhcp = false;   // ... and it came from a DHCP lease
    in_addr m_address{};        // the address, mask and gateway in force
    in_addr m_mask{};
    in_addr m_gateway{};  // 0.0.0.0: no default route
    unsigned int m_nMetric = 0;
    timespec m_leaseAt{};     // when the lease in force was taken up; zero: none
    in_addr m_leaseServer{};  // the server that gave it; 0.0.0.0: none, or not named
    pid_t m_clientPid = 0;    // the DHCP client, 0 when none is known
    unsigned int m_nClientStarts = 0;
    STATUS_WORK m_work;  // its addressing work

    bool operator==(const STATUS_INTERFACE&) const = default;
};

// The two-port mode's isolation as the document shows it.
struct STATUS_ISOLATION {
    bool m_bRequired = false;  // br0 is built, or is being built, for the two-port mode
    bool m_bInForce = false;   // br0 is built for it, and the last look found it whole
    timespec m_verifiedAt{};   // the last look that found it whole; zero: none, or not required
    std::string m_problem;     // why it is not in force, in the log's words; empty while it is
    std::string m_partial;     // why it covers ARP and IPv4 only (no link layer); empty: whole, or not required
    STATUS_WORK m_work;        // putting it back when a look found it broken

    bool operator==(const STATUS_ISOLATION&) const = default;
};

// A link's state as the document shows it.
enum STATUS_LINK : unsigned char {
    STATUS_LINK_UNKNOWN,  // no such link, or it could not be read
    STATUS_LINK_DOWN,     // administratively down, or up without carrier
    STATUS_LINK_UP,       // up, with carrier
};

// Every field of the document that can change while the daemon runs. Taken after
// each pass and compared with the one last written: the document is built and
// written only when they differ. Nothing in it changes by itself from pass to
// pass but the isolation's verified time, which each look that finds it whole
// moves (every 10 s in the two-port mode).
struct STATUS_SNAPSHOT {
    bool m_bConfigRead = false;
    bool m_bConfigUsable = false;
    std::vector<std::string> m_configProblems;
    bool m_bConfigured = false;  // the last read was usable: the modes below are what it asks for
    // The last read was unusable, and what an earlier usable one built is still
    // looked at and put back.
    bool m_bLastUsableSupervised = false;
    BRIDGE_MODE m_eConfiguredBridgeMode = BRIDGE_MODE_ETH0;
    PHY_MODE m_eConfiguredPhyMode = PHY_MODE_COPPER;
    bool m_bBridgeInForce = false;
    BRIDGE_MODE m_eBridgeMode = BRIDGE_MODE_ETH0;
    bool m_bPhyInForce = false;
    PHY_MODE m_ePhyMode = PHY_MODE_COPPER;
    bool m_bEth0Used = false;  // br0 in force has eth0 as a port
    bool m_bEth0LinkUp = false;
    unsigned int m_nEth0Recoveries = 0;
    timespec m_eth0RecoveredAt{};
    // The streak of recoveries going on (the last within kEth0StreakGapMs):
    // how many, since when; 0 and zero when none is.
    unsigned int m_nEth0StreakRecoveries = 0;
    timespec m_eth0StreakSince{};
    // eth1's link, read when the snapshot is compared (the cycle keeps no record of it).
    STATUS_LINK m_eEth1Link = STATUS_LINK_UNKNOWN;
    STATUS_WORK m_startup;
    STATUS_WORK m_bridge;
    STATUS_WORK m_registers;  // eth0's register writes
    STATUS_WORK m_phy;        // the PHY mode's eth1 bounce
    // The small repairs of outside changes: links set up again, ports put
    // back into br0, MAC addresses set back, and eth0's place in br0.
    STATUS_WORK m_links;
    STATUS_WORK m_ports;
    STATUS_WORK m_macs;
    STATUS_WORK m_eth0Port;
    STATUS_INTERFACE m_veth1;
    STATUS_INTERFACE m_veth3;
    STATUS_ISOLATION m_isolation;

    // Field by field, every field: defaulted, so none can be left out.
    bool operator==(const STATUS_SNAPSHOT&) const = default;
};

// Fills `snapshot` from the cycle's state, in place (its texts keep their storage).
void TakeStatusSnapshot(const CYCLE_STATE& state, STATUS_SNAPSHOT& snapshot);
