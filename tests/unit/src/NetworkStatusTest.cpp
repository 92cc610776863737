#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "src/NetworkConfig.h"
#include "src/NetworkCycle.h"
#include "src/NetworkLinkPhy.h"
#include "src/NetworkRetry.h"
#include "src/NetworkShell.h"
#include "src/NetworkStatus.h"
#include "src/NetworkStatusFile.h"
#include "src/NetworkStatusJson.h"
#include "src/NetworkStatusSnapshot.h"
#include "tests/support/FieldChanges.h"
#include "tests/support/Files.h"
#include "tests/support/FixedClock.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NetworkRecords.h"
#include "tests/support/StatusDaemon.h"
#include "tests/support/SteppedClock.h"
#include "tests/support/TempDir.h"

namespace {

using nlohmann::json;

// Runs the test in UTC, and puts the zone back.
class Utc {
public:
    Utc() {
        const char* old = getenv("TZ");
        m_bHad = old != nullptr;
        if (m_bHad) m_old = old;
        setenv("TZ", "UTC0", 1);
        tzset();
    }
    ~Utc() {
        if (m_bHad) {
            setenv("TZ", m_old.c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }
    Utc(const Utc&) = delete;
    Utc& operator=(const Utc&) = delete;

private:
    bool m_bHad = false;
    std::string m_old;
};

// The state after usable passes in the two-port mode: veth1 with a lease, veth3 static.
CYCLE_STATE TwoPortState() {
    CYCLE_STATE state;
    state.m_bConfigRead = true;
    state.m_bConfigUsable = true;
    state.m_settings.m_eBridgeMode = BRIDGE_MODE_ETH0ETH1;
    state.m_settings.m_ePhyMode = PHY_MODE_SGMII;
    state.m_settings.m_veth1Config = IpConfig(true, "0.0.0.0", "0.0.0.0", "0.0.0.0");
    state.m_settings.m_veth3Config = IpConfig(false, "10.253.254.253", "255.255.255.0", "0.0.0.0");
    state.m_bBridgeSetupPending = false;
    state.m_eLastBridgeMode = BRIDGE_MODE_ETH0ETH1;
    state.m_bPhyModePending = false;
    state.m_eLastPhyMode = PHY_MODE_SGMII;
    state.m_bEth0LinkUp = true;
    state.m_bFirstCycle = false;
    state.m_veth1.m_bReconfigure = false;
    state.m_veth1.m_applied = state.m_settings.m_veth1Config;
    state.m_veth1.m_dhcp = LeaseState(true, "192.168.77.100", "255.255.255.0", "192.168.77.1");
    state.m_veth1.m_dhcp.m_server = Ip("192.168.77.2");
    state.m_veth1.m_leaseAt = {kStatusInstant + 5, 0};
    state.m_veth1.m_clientPid = 77;
    state.m_veth1.m_nClientStarts = 1;
    state.m_veth3.m_bReconfigure = false;
    state.m_veth3.m_applied = state.m_settings.m_veth3Config;
    return state;
}

json Document(const CYCLE_STATE& state) {
    STATUS_SNAPSHOT snapshot;
    TakeStatusSnapshot(state, snapshot);
    return json::parse(StatusJson(StatusDaemon(), snapshot));
}

ino_t Inode(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

mode_t Mode(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 ? (status.st_mode & 07777) : 0;
}

TEST(StatusJsonTest, TwoPortDeviceWithALeaseAndAStaticAddress) {
    Utc utc;
    const json doc = Document(TwoPortState());
    EXPECT_EQ(doc["schema"], 1);
    EXPECT_EQ(doc["daemon"], json::parse(R"({"version": "1.2.3", "pid": 4321,
                                             "started": "2038-01-19T03:14:07+00:00"})"));
    EXPECT_EQ(doc["configuration"], json::parse(R"({"path": "/etc/tessel-networkd.conf", "read": true,
                                                    "usable": true, "problems": [], "bridge_mode": "eth0eth1",
                                                    "phy_mode": "frame", "last_usable_supervised": false})"));
    EXPECT_EQ(doc["bridge_mode"], "eth0eth1");
    EXPECT_EQ(doc["phy_mode"], "frame");
    EXPECT_EQ(doc["eth0"],
              json::parse(R"({"used": true, "link": "up", "recoveries": 0, "last_recovery": null, "streak": null})"));
    ASSERT_EQ(doc["interfaces"].size(), 2U);
    EXPECT_EQ(doc["interfaces"][0], json::parse(R"({"name": "veth1", "addressing": "dhcp", "requested": null,
        "address": "192.168.77.100", "mask": "255.255.255.0", "gateway": "192.168.77.1", "metric": 10,
        "from_dhcp": true, "lease_at": "2038-01-19T03:14:12+00:00", "lease_server": "192.168.77.2", "dhcp_client": {"pid": 77, "starts": 1},
        "work": {"failing": false, "failures": 0, "last_failure": null, "recovered_at": null, "outside_changes": 0, "last_outside_change": null}})"));
    EXPECT_EQ(doc["interfaces"][1], json::parse(R"({"name": "veth3", "addressing": "static",
        "requested": {"address": "10.253.254.253", "mask": "255.255.255.0", "gateway": null},
        "address": "10.253.254.253", "mask": "255.255.255.0", "gateway": null, "metric": 100,
        "from_dhcp": false, "lease_at": null, "lease_server": null, "dhcp_client": {"pid": null, "starts": 0},
        "work": {"failing": false, "failures": 0, "last_failure": null, "recovered_at": null, "outside_changes": 0, "last_outside_change": null}})"));
    const json healthy = json::parse(R"({"failing": false, "failures": 0, "last_failure": null,
                                         "recovered_at": null, "outside_changes": 0, "last_outside_change": null})");
    EXPECT_EQ(doc["work"].size(), 11U);
    for (const char* work : {"startup", "bridge", "registers", "phy", "veth1", "veth3", "isolation", "links", "ports",
                             "macs", "eth0_port"}) {
        EXPECT_EQ(doc["work"][work], healthy) << work;
    }
}

// The two-port state with the isolation found whole by a look 30 s after the start.
CYCLE_STATE IsolatedTwoPortState() {
    CYCLE_STATE state = TwoPortState();
    state.m_isolation.m_bInForce = true;
    state.m_isolation.m_verifiedAt = {kStatusInstant + 30, 0};
    state.m_isolation.m_nVerifiedMs = MonotonicMs();
    return state;
}

TEST(StatusJsonTest, TheWholeDocumentWithTheIsolationInForce) {
    Utc utc;
    STATUS_SNAPSHOT snapshot;
    TakeStatusSnapshot(IsolatedTwoPortState(), snapshot);
    EXPECT_EQ(StatusJson(StatusDaemon(), snapshot), R"({
  "schema": 1,
  "daemon": {
    "version": "1.2.3",
    "pid": 4321,
    "started": "2038-01-19T03:14:07+00:00"
  },
  "configuration": {
    "path": "/etc/tessel-networkd.conf",
    "read": true,
    "usable": true,
    "problems": [],
    "bridge_mode": "eth0eth1",
    "phy_mode": "frame",
    "last_usable_supervised": false
  },
  "bridge_mode": "eth0eth1",
  "phy_mode": "frame",
  "eth0": {
    "used": true,
    "link": "up",
    "recoveries": 0,
    "last_recovery": null,
    "streak": null
  },
  "eth1": {
    "link": null
  },
  "isolation": {
    "required": true,
    "in_force": true,
    "verified_at": "2038-01-19T03:14:37+00:00",
    "problem": null,
    "partial": null
  },
  "interfaces": [
    {
      "name": "veth1",
      "addressing": "dhcp",
      "requested": null,
      "address": "192.168.77.100",
      "mask": "255.255.255.0",
      "gateway": "192.168.77.1",
      "metric": 10,
      "from_dhcp": true,
      "lease_at": "2038-01-19T03:14:12+00:00",
      "lease_server": "192.168.77.2",
      "dhcp_client": {
        "pid": 77,
        "starts": 1
      },
      "work": {
        "failing": false,
        "failures": 0,
        "last_failure": null,
        "recovered_at": null,
        "outside_changes": 0,
        "last_outside_change": null
      }
    },
    {
      "name": "veth3",
      "addressing": "static",
      "requested": {
        "address": "10.253.254.253",
        "mask": "255.255.255.0",
        "gateway": null
      },
      "address": "10.253.254.253",
      "mask": "255.255.255.0",
      "gateway": null,
      "metric": 100,
      "from_dhcp": false,
      "lease_at": null,
      "lease_server": null,
      "dhcp_client": {
        "pid": null,
        "starts": 0
      },
      "work": {
        "failing": false,
        "failures": 0,
        "last_failure": null,
        "recovered_at": null,
        "outside_changes": 0,
        "last_outside_change": null
      }
    }
  ],
  "work": {
    "startup": {
      "failing": false,
      "failures": 0,
      "last_failure": null,
      "recovered_at": null,
      "outside_changes": 0,
      "last_outside_change": null
    },
    "bridge": {
      "failing": false,
      "failures": 0,
      "last_failure": null,
      "recovered_at": null,
      "outside_changes": 0,
      "last_outside_change": null
    },
    "registers": {
      "failing": false,
      "failures": 0,
      "last_failure": null,
      "recovered_at": null,
      "outside_changes": 0,
      "last_outside_change": null
    },
    "phy": {
      "failing": false,
      "failures": 0,
      "last_failure": null,
      "recovered_at": null,
      "outside_changes": 0,
      "last_outside_change": null
    },
    "veth1": {
      "failing": false,
      "failures": 0,
      "last_failure": null,
      "recovered_at": null,
      "outside_changes": 0,
      "last_outside_change": null
    },
    "veth3": {
      "failing": false,
      "failures": 0,
      "last_failure": null,
      "recovered_at": null,
      "outside_changes": 0,
      "last_outside_change": null
    },
    "isolation": {
      "failing": false,
      "failures": 0,
      "last_failure": null,
      "recovered_at": null,
      "outside_changes": 0,
      "last_outside_change": null
    },
    "links": {
      "failing": false,
      "failures": 0,
      "last_failure": null,
      "recovered_at": null,
      "outside_changes": 0,
      "last_outside_change": null
    },
    "ports": {
      "failing": false,
      "failures": 0,
      "last_failure": null,
      "recovered_at": null,
      "outside_changes": 0,
      "last_outside_change": null
    },
    "macs": {
      "failing": false,
      "failures": 0,
      "last_failure": null,
      "recovered_at": null,
      "outside_changes": 0,
      "last_outside_change": null
    },
    "eth0_port": {
      "failing": false,
      "failures": 0,
      "last_failure": null,
      "recovered_at": null,
      "outside_changes": 0,
      "last_outside_change": null
    }
  }
}
)");
}

TEST(StatusJsonTest, TheWholeDocumentWithTheIsolationBrokenAndItsRepairFailing) {
    Utc utc;
    CYCLE_STATE state = IsolatedTwoPortState();
    state.m_isolation.m_bInForce = false;
    state.m_isolation.m_problem = "0 of 38 ARP rules in place; br0 passes no bridged IPv4 to iptables";
    state.m_isolation.m_health.m_nFailures = 2;
    state.m_isolation.m_health.m_lastFailure.m_command = "arptables -A FORWARD -i eth1 -j DROP";
    state.m_isolation.m_health.m_lastFailure.m_outcome.m_nStatus = 4;
    state.m_isolation.m_health.m_failedAt = {kStatusInstant + 42, 0};
    STATUS_SNAPSHOT snapshot;
    TakeStatusSnapshot(state, snapshot);
    EXPECT_EQ(StatusJson(StatusDaemon(), snapshot), R"({
  "schema": 1,
  "daemon": {
    "version": "1.2.3",
    "pid": 4321,
    "started": "2038-01-19T03:14:07+00:00"
  },
  "configuration": {
    "path": "/etc/tessel-networkd.conf",
    "read": true,
    "usable": true,
    "problems": [],
    "bridge_mode": "eth0eth1",
    "phy_mode": "frame",
    "last_usable_supervised": false
  },
  "bridge_mode": "eth0eth1",
  "phy_mode": "frame",
  "eth0": {
    "used": true,
    "link": "up",
    "recoveries": 0,
    "last_recovery": null,
    "streak": null
  },
  "eth1": {
    "link": null
  },
  "isolation": {
    "required": true,
    "in_force": false,
    "verified_at": "2038-01-19T03:14:37+00:00",
    "problem": "0 of 38 ARP rules in place; br0 passes no bridged IPv4 to iptables",
    "partial": null
  },
  "interfaces": [
    {
      "name": "veth1",
      "addressing": "dhcp",
      "requested": null,
      "address": "192.168.77.100",
      "mask": "255.255.255.0",
      "gateway": "192.168.77.1",
      "metric": 10,
      "from_dhcp": true,
      "lease_at": "2038-01-19T03:14:12+00:00",
      "lease_server": "192.168.77.2",
      "dhcp_client": {
        "pid": 77,
        "starts": 1
      },
      "work": {
        "failing": false,
        "failures": 0,
        "last_failure": null,
        "recovered_at": null,
        "outside_changes": 0,
        "last_outside_change": null
      }
    },
    {
      "name": "veth3",
      "addressing": "static",
      "requested": {
        "address": "10.253.254.253",
        "mask": "255.255.255.0",
        "gateway": null
      },
      "address": "10.253.254.253",
      "mask": "255.255.255.0",
      "gateway": null,
      "metric": 100,
      "from_dhcp": false,
      "lease_at": null,
      "lease_server": null,
      "dhcp_client": {
        "pid": null,
        "starts": 0
      },
      "work": {
        "failing": false,
        "failures": 0,
        "last_failure": null,
        "recovered_at": null,
        "outside_changes": 0,
        "last_outside_change": null
      }
    }
  ],
  "work": {
    "startup": {
      "failing": false,
      "failures": 0,
      "last_failure": null,
      "recovered_at": null,
      "outside_changes": 0,
      "last_outside_change": null
    },
    "bridge": {
      "failing": false,
      "failures": 0,
      "last_failure": null,
      "recovered_at": null,
      "outside_changes": 0,
      "last_outside_change": null
    },
    "registers": {
      "failing": false,
      "failures": 0,
      "last_failure": null,
      "recovered_at": null,
      "outside_changes": 0,
      "last_outside_change": null
    },
    "phy": {
      "failing": false,
      "failures": 0,
      "last_failure": null,
      "recovered_at": null,
      "outside_changes": 0,
      "last_outside_change": null
    },
    "veth1": {
      "failing": false,
      "failures": 0,
      "last_failure": null,
      "recovered_at": null,
      "outside_changes": 0,
      "last_outside_change": null
    },
    "veth3": {
      "failing": false,
      "failures": 0,
      "last_failure": null,
      "recovered_at": null,
      "outside_changes": 0,
      "last_outside_change": null
    },
    "isolation": {
      "failing": true,
      "failures": 2,
      "last_failure": {
        "command": "arptables -A FORWARD -i eth1 -j DROP",
        "outcome": "exit status 4",
        "at": "2038-01-19T03:14:49+00:00"
      },
      "recovered_at": null,
      "outside_changes": 0,
      "last_outside_change": null
    },
    "links": {
      "failing": false,
      "failures": 0,
      "last_failure": null,
      "recovered_at": null,
      "outside_changes": 0,
      "last_outside_change": null
    },
    "ports": {
      "failing": false,
      "failures": 0,
      "last_failure": null,
      "recovered_at": null,
      "outside_changes": 0,
      "last_outside_change": null
    },
    "macs": {
      "failing": false,
      "failures": 0,
      "last_failure": null,
      "recovered_at": null,
      "outside_changes": 0,
      "last_outside_change": null
    },
    "eth0_port": {
      "failing": false,
      "failures": 0,
      "last_failure": null,
      "recovered_at": null,
      "outside_changes": 0,
      "last_outside_change": null
    }
  }
}
)");
}

TEST(StatusJsonTest, TheIsolationIsNotRequiredInTheOneBridgeModes) {
    Utc utc;
    CYCLE_STATE state = IsolatedTwoPortState();
    // What an earlier two-port period left behind is not shown.
    state.m_isolation.m_problem = "putting it back failed: ebtables -A FORWARD -i eth1 -j DROP";
    state.m_isolation.m_health.m_lastFailure.m_command = "ebtables -A FORWARD -i eth1 -j DROP";
    state.m_isolation.m_health.m_lastFailure.m_outcome.m_nStatus = 1;
    state.m_isolation.m_health.m_failedAt = {kStatusInstant + 12, 0};
    state.m_isolation.m_health.m_recoveredAt = {kStatusInstant + 13, 0};
    for (const BRIDGE_MODE mode : {BRIDGE_MODE_ETH0, BRIDGE_MODE_ETH1}) {
        state.m_settings.m_eBridgeMode = mode;
        state.m_eLastBridgeMode = mode;
        const json doc = Document(state);
        EXPECT_EQ(doc["isolation"], json::parse(R"({"required": false, "in_force": false, "verified_at": null,
                                                    "problem": null, "partial": null})"))
            << mode;
        // Its work is the record of what happened, whatever the mode.
        EXPECT_EQ(doc["work"]["isolation"], json::parse(R"({"failing": false, "failures": 0, "last_failure":
            {"command": "ebtables -A FORWARD -i eth1 -j DROP", "outcome": "exit status 1",
             "at": "2038-01-19T03:14:19+00:00"}, "recovered_at": "2038-01-19T03:14:20+00:00", "outside_changes": 0, "last_outside_change": null})"))
            << mode;
    }
}

TEST(StatusJsonTest, BeforeTheFirstReadNothingIsInForce) {
    const json doc = Document(CYCLE_STATE{});
    EXPECT_EQ(doc["configuration"]["read"], false);
    EXPECT_EQ(doc["configuration"]["bridge_mode"], nullptr);
    EXPECT_EQ(doc["bridge_mode"], nullptr);
    EXPECT_EQ(doc["phy_mode"], nullptr);
    EXPECT_EQ(doc["eth0"]["used"], false);
    EXPECT_EQ(doc["eth0"]["link"], nullptr);
    ASSERT_EQ(doc["interfaces"].size(), 1U);
    EXPECT_EQ(doc["interfaces"][0]["addressing"], nullptr);
    EXPECT_EQ(doc["interfaces"][0]["address"], nullptr);
}

TEST(StatusJsonTest, AnUnusableFileShowsItsProblemsAndKeepsWhatIsInForce) {
    CYCLE_STATE state = TwoPortState();
    state.m_bConfigUsable = false;
    state.m_configProblems = {"Invalid static subnet mask veth3", "No veth1 line in config file"};
    const json doc = Document(state);
    EXPECT_EQ(doc["configuration"]["usable"], false);
    // What the last usable one built is still looked at and put back.
    EXPECT_EQ(doc["configuration"]["last_usable_supervised"], true);
    EXPECT_EQ(doc["configuration"]["problems"],
              json::parse(R"(["Invalid static subnet mask veth3", "No veth1 line in config file"])"));
    EXPECT_EQ(doc["configuration"]["bridge_mode"], nullptr);
    EXPECT_EQ(doc["bridge_mode"], "eth0eth1");
    EXPECT_EQ(doc["interfaces"][1]["address"], "10.253.254.253");
}

TEST(StatusJsonTest, AFailureNotYetRecoveredAndOneThatRecovered) {
    Utc utc;
    CYCLE_STATE state = TwoPortState();
    state.m_bridgeHealth.m_nFailures = 3;
    state.m_bridgeHealth.m_lastFailure.m_command = "ip link add name br0 type bridge";
    state.m_bridgeHealth.m_lastFailure.m_outcome.m_nStatus = 2;
    state.m_bridgeHealth.m_failedAt = {kStatusInstant + 60, 0};
    state.m_registerHealth.m_nFailures = 1;
    state.m_registerHealth.m_lastFailure.m_command = "devmem 0xFF200088 32 0x3";
    state.m_registerHealth.m_lastFailure.m_outcome.m_bStarted = false;
    state.m_registerHealth.m_failedAt = {kStatusInstant + 3, 0};
    state.m_veth3.m_health.m_lastFailure.m_command = "ip addr add 10.253.254.253/255.255.255.0 dev veth3";
    state.m_veth3.m_health.m_lastFailure.m_outcome.m_nStatus = 1;
    state.m_veth3.m_health.m_failedAt = {kStatusInstant + 1, 0};
    state.m_veth3.m_health.m_recoveredAt = {kStatusInstant + 2, 0};
    const json doc = Document(state);
    EXPECT_EQ(
        doc["work"]["bridge"],
        json::parse(
            R"({"failing": true, "failures": 3, "last_failure":
        {"command": "ip link add name br0 type bridge", "outcome": ")" +
            DescribeOutcome(state.m_bridgeHealth.m_lastFailure.m_outcome) +
            R"(", "at": "2038-01-19T03:15:07+00:00"}, "recovered_at": null, "outside_changes": 0, "last_outside_change": null})"));
    EXPECT_EQ(doc["work"]["registers"]["failing"], true);
    EXPECT_EQ(doc["work"]["registers"]["last_failure"]["command"], "devmem 0xFF200088 32 0x3");
    EXPECT_EQ(doc["work"]["phy"]["failing"], false);
    EXPECT_EQ(doc["work"]["veth3"]["failing"], false);
    EXPECT_EQ(doc["work"]["veth3"]["recovered_at"], "2038-01-19T03:14:09+00:00");
    EXPECT_EQ(doc["work"]["veth3"]["last_failure"]["command"], "ip addr add 10.253.254.253/255.255.255.0 dev veth3");
}

// The write found no driver file: the mode is not in force, and the PHY work
// fails with the log's words and the reason, however good eth1's bounce was.
TEST(StatusJsonTest, APhyModeWhoseWriteFailedIsNotInForceAndItsWorkFails) {
    Utc utc;
    TempDir dir;
    const std::string path = dir.Path("missing-dir/marvell-phy-0-port");
    CYCLE_STATE state = TwoPortState();
    WORK_FAILURE failure;
    {
        LogCapture log;  // the write's ERROR stays out of the test's output
        ASSERT_FALSE(SetEthernetPhyMode(path, PHY_MODE_SGMII, &failure));
    }
    state.m_bPhyWriteFailed = true;
    state.m_bPhyFileMissing = true;
    NoteWorkFailedQuietly(state.m_phyHealth, failure);
    const json doc = Document(state);
    EXPECT_EQ(doc["configuration"]["phy_mode"], "frame");
    EXPECT_EQ(doc["phy_mode"], nullptr);
    EXPECT_EQ(doc["work"]["phy"]["failing"], true);
    EXPECT_EQ(doc["work"]["phy"]["failures"], 1);
    EXPECT_EQ(doc["work"]["phy"]["last_failure"]["command"], "Unable to open " + path + " patch is required");
    EXPECT_EQ(doc["work"]["phy"]["last_failure"]["outcome"], "not started (No such file or directory)");
    // Written at last: in force, and the work recovered.
    state.m_bPhyWriteFailed = false;
    state.m_bPhyFileMissing = false;
    {
        LogCapture log;
        NoteWorkDone(state.m_phyHealth, "PHY mode");
    }
    const json written = Document(state);
    EXPECT_EQ(written["phy_mode"], "frame");
    EXPECT_EQ(written["work"]["phy"]["failing"], false);
}

TEST(StatusJsonTest, WorkUndoneFromOutsideAndItsRepair) {
    Utc utc;
    CYCLE_STATE state = TwoPortState();
    state.m_veth3.m_health.m_nUndone = 3;
    state.m_veth3.m_health.m_lastUndone = "veth3's address 10.253.254.253/24 was removed";
    state.m_veth3.m_health.m_undoneAt = {kStatusInstant + 60, 0};
    state.m_veth3.m_health.m_bUndonePending = true;
    json doc = Document(state);
    EXPECT_EQ(doc["work"]["veth3"], json::parse(R"({"failing": false, "failures": 0, "last_failure": null,
        "recovered_at": null, "outside_changes": 3, "last_outside_change": {"found":
        "veth3's address 10.253.254.253/24 was removed", "at": "2038-01-19T03:15:07+00:00", "repaired": false}})"));
    state.m_veth3.m_health.m_bUndonePending = false;
    doc = Document(state);
    EXPECT_EQ(doc["work"]["veth3"]["last_outside_change"]["repaired"], true);
    EXPECT_EQ(doc["interfaces"][1]["work"]["outside_changes"], 3);
}

TEST(StatusJsonTest, EscapesWhatItQuotes) {
    STATUS_DAEMON daemon = StatusDaemon();
    daemon.m_configPath = "/etc/odd \"name\"\n\x01\xff.conf";
    STATUS_SNAPSHOT snapshot;
    TakeStatusSnapshot(TwoPortState(), snapshot);
    const json doc = json::parse(StatusJson(daemon, snapshot));
    EXPECT_EQ(doc["configuration"]["path"], "/etc/odd \"name\"\n\x01\xef\xbf\xbd.conf");
}

TEST(StatusSnapshotTest, EqualUntilAFieldTheDocumentShowsChanges) {
    const CYCLE_STATE state = TwoPortState();
    STATUS_SNAPSHOT a;
    STATUS_SNAPSHOT b;
    TakeStatusSnapshot(state, a);
    TakeStatusSnapshot(state, b);
    EXPECT_TRUE(a == b);
    CYCLE_STATE changed = state;
    changed.m_veth1.m_nClientStarts = 2;
    TakeStatusSnapshot(changed, b);
    EXPECT_TRUE(a != b);
    changed = state;
    changed.m_configProblems.push_back("Unable to read configuration file");
    TakeStatusSnapshot(changed, b);
    EXPECT_TRUE(a != b);
    changed = state;
    changed.m_eth0RecoveredAt = {kStatusInstant, 1};
    TakeStatusSnapshot(changed, b);
    EXPECT_TRUE(a != b);
    // What the document does not show changes nothing: the client check's next time.
    changed = state;
    changed.m_veth1.m_nClientCheckAtMs = 123456;
    TakeStatusSnapshot(changed, b);
    EXPECT_TRUE(a == b);
}

TEST(StatusSnapshotTest, TheIsolationIsRequiredWhileBr0IsBuiltOrBeingBuiltForTheTwoPortMode) {
    CYCLE_STATE state = IsolatedTwoPortState();
    STATUS_SNAPSHOT snapshot;
    TakeStatusSnapshot(state, snapshot);
    EXPECT_TRUE(snapshot.m_isolation.m_bRequired);
    EXPECT_TRUE(snapshot.m_isolation.m_bInForce);
    EXPECT_EQ(snapshot.m_isolation.m_verifiedAt.tv_sec, kStatusInstant + 30);
    EXPECT_EQ(snapshot.m_isolation.m_problem, "");

    // Asked for and not built yet (or its build failing): required, and not in
    // force whatever an earlier build left.
    CYCLE_STATE building = state;
    building.m_bBridgeSetupPending = true;
    building.m_isolation.m_problem = "the bridge build stopped at: ip link add name br0 type bridge";
    TakeStatusSnapshot(building, snapshot);
    EXPECT_TRUE(snapshot.m_isolation.m_bRequired);
    EXPECT_FALSE(snapshot.m_isolation.m_bInForce);
    EXPECT_EQ(snapshot.m_isolation.m_verifiedAt.tv_sec, kStatusInstant + 30);
    EXPECT_EQ(snapshot.m_isolation.m_problem, "the bridge build stopped at: ip link add name br0 type bridge");

    // Built for it, and the file no longer usable: still in force.
    CYCLE_STATE unusable = state;
    unusable.m_bConfigUsable = false;
    TakeStatusSnapshot(unusable, snapshot);
    EXPECT_TRUE(snapshot.m_isolation.m_bRequired);
    EXPECT_TRUE(snapshot.m_isolation.m_bInForce);

    // A new mode asked for whose build fails: br0 is in no mode, nothing is required.
    CYCLE_STATE leaving = state;
    leaving.m_settings.m_eBridgeMode = BRIDGE_MODE_ETH1;
    leaving.m_bBridgeSetupPending = true;
    TakeStatusSnapshot(leaving, snapshot);
    EXPECT_FALSE(snapshot.m_isolation.m_bRequired);
    EXPECT_FALSE(snapshot.m_isolation.m_bInForce);
    EXPECT_EQ(snapshot.m_isolation.m_verifiedAt.tv_sec, 0);

    // Before the first pass, and with a file never usable that asks for the mode.
    TakeStatusSnapshot(CYCLE_STATE{}, snapshot);
    EXPECT_FALSE(snapshot.m_isolation.m_bRequired);
    CYCLE_STATE neverUsable;
    neverUsable.m_bConfigRead = true;
    neverUsable.m_settings.m_eBridgeMode = BRIDGE_MODE_ETH0ETH1;
    TakeStatusSnapshot(neverUsable, snapshot);
    EXPECT_FALSE(snapshot.m_isolation.m_bRequired);
}

TEST(StatusSnapshotTest, TheIsolationIsInForceOnlyWhileALookFoundItWholeWithinItsPeriod) {
    SteppedClock clock(30000);
    CYCLE_STATE state = IsolatedTwoPortState();
    STATUS_SNAPSHOT snapshot;
    // 25 s after the look that found it whole: still vouched for.
    clock.Step(25000);
    TakeStatusSnapshot(state, snapshot);
    EXPECT_TRUE(snapshot.m_isolation.m_bInForce);
    EXPECT_EQ(snapshot.m_isolation.m_problem, "");

    // A moment later, with no look since (the listings failing): the verdict
    // stands in the daemon, the document no longer says so, and says why.
    clock.Step(1);
    state.m_isolation.m_unverified = "the IP rules cannot be listed (iptables -S: exit status 4)";
    TakeStatusSnapshot(state, snapshot);
    EXPECT_TRUE(snapshot.m_isolation.m_bRequired);
    EXPECT_FALSE(snapshot.m_isolation.m_bInForce);
    EXPECT_EQ(snapshot.m_isolation.m_verifiedAt.tv_sec, kStatusInstant + 30);
    EXPECT_EQ(snapshot.m_isolation.m_problem,
              "not found whole by a look for over 25 s: the IP rules cannot be listed (iptables -S: exit status 4)");
    const json document = json::parse(StatusJson(StatusDaemon(), snapshot));
    EXPECT_EQ(document["isolation"]["in_force"], false);
    EXPECT_EQ(document["isolation"]["problem"],
              "not found whole by a look for over 25 s: the IP rules cannot be listed (iptables -S: exit status 4)");

    // No look due at all (a pass that never came round to it): the same, without a reason.
    state.m_isolation.m_unverified.clear();
    TakeStatusSnapshot(state, snapshot);
    EXPECT_FALSE(snapshot.m_isolation.m_bInForce);
    EXPECT_EQ(snapshot.m_isolation.m_problem, "not found whole by a look for over 25 s");

    // The next look that finds it whole vouches for it again.
    state.m_isolation.m_nVerifiedMs = SteppedClock::Now();
    TakeStatusSnapshot(state, snapshot);
    EXPECT_TRUE(snapshot.m_isolation.m_bInForce);
    EXPECT_EQ(snapshot.m_isolation.m_problem, "");

    // Never looked at: not in force, whatever the verdict says.
    state.m_isolation.m_nVerifiedMs = 0;
    TakeStatusSnapshot(state, snapshot);
    EXPECT_FALSE(snapshot.m_isolation.m_bInForce);
}

TEST(Eth0StreakTest, RecoveriesMoreThanAMinuteApartStartANewStreak) {
    SteppedClock clock(1000000);
    FixedClock wall(kStatusInstant, 0);
    CYCLE_STATE state;
    std::vector<std::pair<unsigned int, long long>> seen;
    // A recovery a second for 5 s, then one a minute and 1 ms later, then one
    // a minute after that: the streak starts anew once, and goes on after it.
    const std::vector<int64_t> stepsMs = {0, 1000, 1000, 1000, 1000, kEth0StreakGapMs + 1, kEth0StreakGapMs};
    for (const int64_t stepMs : stepsMs) {
        clock.Step(stepMs);
        state.m_eth0RecoveredAt = {kStatusInstant + SteppedClock::Now() / 1000, 0};
        NoteEth0Recovery(state);
        seen.emplace_back(state.m_nEth0StreakRecoveries, state.m_eth0StreakSince.tv_sec - kStatusInstant);
    }
    EXPECT_EQ(seen, (std::vector<std::pair<unsigned int, long long>>{
                        {1, 1000}, {2, 1000}, {3, 1000}, {4, 1000}, {5, 1000}, {1, 1064}, {2, 1064}}));
}

TEST(StatusSnapshotTest, AStreakOfEth0RecoveriesIsShownWhileItLasts) {
    Utc utc;
    SteppedClock clock(1000000);
    CYCLE_STATE state = TwoPortState();
    state.m_nEth0Recoveries = 7;
    state.m_eth0RecoveredAt = {kStatusInstant + 100, 0};
    state.m_nEth0StreakRecoveries = 5;
    state.m_eth0StreakSince = {kStatusInstant + 90, 0};
    state.m_nEth0RecoveredMs = SteppedClock::Now();
    clock.Step(kEth0StreakGapMs);
    EXPECT_EQ(Document(state)["eth0"],
              json::parse(R"({"used": true, "link": "up", "recoveries": 7, "last_recovery": "2038-01-19T03:15:47+00:00",
                              "streak": {"recoveries": 5, "since": "2038-01-19T03:15:37+00:00"}})"));
    // A minute without one: over, the counts stay.
    clock.Step(1);
    EXPECT_EQ(Document(state)["eth0"]["streak"], nullptr);
    EXPECT_EQ(Document(state)["eth0"]["recoveries"], 7);
}

TEST(StatusSnapshotTest, EachLookThatFindsTheIsolationWholeChangesItAndNothingElseOfTheLookDoes) {
    const CYCLE_STATE state = IsolatedTwoPortState();
    STATUS_SNAPSHOT a;
    STATUS_SNAPSHOT b;
    TakeStatusSnapshot(state, a);
    CYCLE_STATE looked = state;
    looked.m_isolation.m_verifiedAt = {kStatusInstant + 40, 0};
    TakeStatusSnapshot(looked, b);
    EXPECT_TRUE(a != b);
    // The next look's time and the wait after a listing that could not run are the daemon's own.
    looked = state;
    looked.m_isolation.m_nNextCheckMs = 987654;
    looked.m_isolation.m_nListingRetryMs = 4000;
    looked.m_isolation.m_bEth1HeldDown = true;
    looked.m_isolation.m_bRepairPending = true;
    looked.m_isolation.m_health.m_nRetryAtMs = 5000;
    TakeStatusSnapshot(looked, b);
    EXPECT_TRUE(a == b);
}

FieldChanges<STATUS_WORK> WorkChanges() {
    FieldChanges<STATUS_WORK> changes = {
        {"m_nFailures", [](STATUS_WORK& w) { ++w.m_nFailures; }},
        {"m_command", [](STATUS_WORK& w) { w.m_command += " x"; }},
    };
    AddFieldChanges(changes, "m_outcome", &STATUS_WORK::m_outcome, OutcomeChanges());
    AddFieldChanges(changes, "m_failedAt", &STATUS_WORK::m_failedAt, TimeChanges());
    AddFieldChanges(changes, "m_recoveredAt", &STATUS_WORK::m_recoveredAt, TimeChanges());
    return changes;
}

FieldChanges<STATUS_INTERFACE> InterfaceChanges() {
    FieldChanges<STATUS_INTERFACE> changes = {
        {"m_bShown", [](STATUS_INTERFACE& i) { i.m_bShown = !i.m_bShown; }},
        {"m_bRequested", [](STATUS_INTERFACE& i) { i.m_bRequested = !i.m_bRequested; }},
        {"m_bInForce", [](STATUS_INTERFACE& i) { i.m_bInForce = !i.m_bInForce; }},
        {"m_bFromDhcp", [](STATUS_INTERFACE& i) { i.m_bFromDhcp = !i.m_bFromDhcp; }},
        {"m_nMetric", [](STATUS_INTERFACE& i) { ++i.m_nMetric; }},
        {"m_clientPid", [](STATUS_INTERFACE& i) { ++i.m_clientPid; }},
        {"m_nClientStarts", [](STATUS_INTERFACE& i) { ++i.m_nClientStarts; }},
    };
    AddFieldChanges(changes, "m_requested", &STATUS_INTERFACE::m_requested, IpConfigChanges());
    AddFieldChanges(changes, "m_address", &STATUS_INTERFACE::m_address, AddressChanges());
    AddFieldChanges(changes, "m_mask", &STATUS_INTERFACE::m_mask, AddressChanges());
    AddFieldChanges(changes, "m_gateway", &STATUS_INTERFACE::m_gateway, AddressChanges());
    AddFieldChanges(changes, "m_leaseAt", &STATUS_INTERFACE::m_leaseAt, TimeChanges());
    AddFieldChanges(changes, "m_leaseServer", &STATUS_INTERFACE::m_leaseServer, AddressChanges());
    AddFieldChanges(changes, "m_work", &STATUS_INTERFACE::m_work, WorkChanges());
    return changes;
}

FieldChanges<STATUS_ISOLATION> IsolationChanges() {
    FieldChanges<STATUS_ISOLATION> changes = {
        {"m_bRequired", [](STATUS_ISOLATION& i) { i.m_bRequired = !i.m_bRequired; }},
        {"m_bInForce", [](STATUS_ISOLATION& i) { i.m_bInForce = !i.m_bInForce; }},
        {"m_problem", [](STATUS_ISOLATION& i) { i.m_problem += " x"; }},
    };
    AddFieldChanges(changes, "m_verifiedAt", &STATUS_ISOLATION::m_verifiedAt, TimeChanges());
    AddFieldChanges(changes, "m_work", &STATUS_ISOLATION::m_work, WorkChanges());
    return changes;
}

FieldChanges<STATUS_SNAPSHOT> SnapshotChanges() {
    FieldChanges<STATUS_SNAPSHOT> changes = {
        {"m_bConfigRead", [](STATUS_SNAPSHOT& s) { s.m_bConfigRead = !s.m_bConfigRead; }},
        {"m_bConfigUsable", [](STATUS_SNAPSHOT& s) { s.m_bConfigUsable = !s.m_bConfigUsable; }},
        {"m_configProblems",
         [](STATUS_SNAPSHOT& s) { s.m_configProblems.emplace_back("No veth3 line in config file"); }},
        {"m_bConfigured", [](STATUS_SNAPSHOT& s) { s.m_bConfigured = !s.m_bConfigured; }},
        {"m_eConfiguredBridgeMode",
         [](STATUS_SNAPSHOT& s) {
             s.m_eConfiguredBridgeMode = static_cast<BRIDGE_MODE>(s.m_eConfiguredBridgeMode + 1U);
         }},
        {"m_eConfiguredPhyMode",
         [](STATUS_SNAPSHOT& s) { s.m_eConfiguredPhyMode = static_cast<PHY_MODE>(s.m_eConfiguredPhyMode + 1U); }},
        {"m_bBridgeInForce", [](STATUS_SNAPSHOT& s) { s.m_bBridgeInForce = !s.m_bBridgeInForce; }},
        {"m_eBridgeMode", [](STATUS_SNAPSHOT& s) { s.m_eBridgeMode = static_cast<BRIDGE_MODE>(s.m_eBridgeMode + 1U); }},
        {"m_bPhyInForce", [](STATUS_SNAPSHOT& s) { s.m_bPhyInForce = !s.m_bPhyInForce; }},
        {"m_ePhyMode", [](STATUS_SNAPSHOT& s) { s.m_ePhyMode = static_cast<PHY_MODE>(s.m_ePhyMode + 1U); }},
        {"m_bEth0Used", [](STATUS_SNAPSHOT& s) { s.m_bEth0Used = !s.m_bEth0Used; }},
        {"m_bEth0LinkUp", [](STATUS_SNAPSHOT& s) { s.m_bEth0LinkUp = !s.m_bEth0LinkUp; }},
        {"m_nEth0Recoveries", [](STATUS_SNAPSHOT& s) { ++s.m_nEth0Recoveries; }},
        {"m_eEth1Link", [](STATUS_SNAPSHOT& s) { s.m_eEth1Link = static_cast<STATUS_LINK>(s.m_eEth1Link + 1U); }},
    };
    AddFieldChanges(changes, "m_eth0RecoveredAt", &STATUS_SNAPSHOT::m_eth0RecoveredAt, TimeChanges());
    AddFieldChanges(changes, "m_startup", &STATUS_SNAPSHOT::m_startup, WorkChanges());
    AddFieldChanges(changes, "m_bridge", &STATUS_SNAPSHOT::m_bridge, WorkChanges());
    AddFieldChanges(changes, "m_registers", &STATUS_SNAPSHOT::m_registers, WorkChanges());
    AddFieldChanges(changes, "m_phy", &STATUS_SNAPSHOT::m_phy, WorkChanges());
    AddFieldChanges(changes, "m_veth1", &STATUS_SNAPSHOT::m_veth1, InterfaceChanges());
    AddFieldChanges(changes, "m_veth3", &STATUS_SNAPSHOT::m_veth3, InterfaceChanges());
    AddFieldChanges(changes, "m_isolation", &STATUS_SNAPSHOT::m_isolation, IsolationChanges());
    return changes;
}

TEST(StatusSnapshotTest, EqualityNoticesAChangeInEachFieldInTurn) {
    STATUS_SNAPSHOT snapshot;
    TakeStatusSnapshot(TwoPortState(), snapshot);
    ExpectEveryChangeNoticed(snapshot, SnapshotChanges());
    // A work's and an interface's own equality, beside the snapshot's.
    ExpectEveryChangeNoticed(snapshot.m_bridge, WorkChanges());
    ExpectEveryChangeNoticed(snapshot.m_veth1, InterfaceChanges());
    ExpectEveryChangeNoticed(snapshot.m_isolation, IsolationChanges());
}

TEST(WriteStatusFileTest, CreatesTheDirectoryAndTheFileWithTheirModesWhateverTheUmask) {
    TempDir dir;
    const std::string status = dir.Path("run");
    const mode_t old = umask(077);
    std::string error;
    const bool bWritten = WriteStatusFile(status, "{}\n", error);
    umask(old);
    ASSERT_TRUE(bWritten) << error;
    EXPECT_EQ(Mode(status), 0755U);
    EXPECT_EQ(Mode(status + "/status.json"), 0644U);
    EXPECT_EQ(ReadFile(status + "/status.json"), "{}\n");
    // Replaced, not rewritten: a reader holding the old file keeps it whole.
    const ino_t first = Inode(status + "/status.json");
    ASSERT_TRUE(WriteStatusFile(status, "{\"a\": 1}\n", error)) << error;
    EXPECT_NE(Inode(status + "/status.json"), first);
    EXPECT_EQ(ReadFile(status + "/status.json"), "{\"a\": 1}\n");
    // Nothing else is left in the directory.
    EXPECT_EQ(access((status + "/.status.json.new").c_str(), F_OK), -1);
}

TEST(WriteStatusFileTest, RefusesASymbolicLinkAndADirectoryOthersCanWrite) {
    TempDir dir;
    ASSERT_EQ(mkdir(dir.Path("elsewhere").c_str(), 0755), 0);
    ASSERT_EQ(symlink(dir.Path("elsewhere").c_str(), dir.Path("run").c_str()), 0);
    std::string error;
    EXPECT_FALSE(WriteStatusFile(dir.Path("run"), "{}\n", error));
    EXPECT_NE(error.find("not a directory"), std::string::npos) << error;
    EXPECT_EQ(access(dir.Path("elsewhere/status.json").c_str(), F_OK), -1);

    ASSERT_EQ(mkdir(dir.Path("open").c_str(), 0755), 0);
    ASSERT_EQ(chmod(dir.Path("open").c_str(), 0777), 0);
    EXPECT_FALSE(WriteStatusFile(dir.Path("open"), "{}\n", error));
    EXPECT_NE(error.find("writable by others"), std::string::npos) << error;
}

TEST(WriteStatusFileTest, ALeftoverTemporaryFileIsReplaced) {
    TempDir dir;
    ASSERT_EQ(mkdir(dir.Path("run").c_str(), 0755), 0);
    std::ofstream(dir.Path("run/.status.json.new")) << "half a document";
    std::string error;
    ASSERT_TRUE(WriteStatusFile(dir.Path("run"), "{}\n", error)) << error;
    EXPECT_EQ(ReadFile(dir.Path("run/status.json")), "{}\n");
}

TEST(UpdateStatusTest, WritesOnlyWhenWhatItShowsChanged) {
    TempDir dir;
    STATUS_WRITER writer;
    StartStatus(writer, dir.Path("run"), "/etc/x.conf");
    CYCLE_STATE state = TwoPortState();
    UpdateStatus(writer, state);
    const std::string path = dir.Path("run/status.json");
    const ino_t first = Inode(path);
    ASSERT_NE(first, 0U);
    EXPECT_EQ(json::parse(ReadFile(path))["daemon"]["pid"], getpid());
    for (int pass = 0; pass < 5; ++pass) UpdateStatus(writer, state);
    EXPECT_EQ(Inode(path), first);
    state.m_bEth0LinkUp = false;
    UpdateStatus(writer, state);
    EXPECT_NE(Inode(path), first);
    EXPECT_EQ(json::parse(ReadFile(path))["eth0"]["link"], "down");
}

TEST(UpdateStatusTest, Eth1sLinkIsReadWhenDueAndAChangeRewritesTheDocument) {
    TempDir dir;
    STATUS_WRITER writer;
    StartStatus(writer, dir.Path("run"), "/etc/x.conf");
    // The loopback link is there wherever the test runs (up, or down in a new
    // namespace); a link that is not there is not known.
    writer.m_eth1 = "lo";
    const CYCLE_STATE state = TwoPortState();
    UpdateStatus(writer, state);
    const std::string path = dir.Path("run/status.json");
    const json link = json::parse(ReadFile(path))["eth1"]["link"];
    EXPECT_TRUE(link == "up" || link == "down") << link;
    const ino_t first = Inode(path);
    // Not read again until it is due (main makes it so on the kernel's report of an owned link).
    EXPECT_FALSE(writer.m_bEth1LinkDue);
    writer.m_eth1 = "tsl-no-such0";
    UpdateStatus(writer, state);
    EXPECT_EQ(Inode(path), first);
    EXPECT_EQ(json::parse(ReadFile(path))["eth1"]["link"], link);
    writer.m_bEth1LinkDue = true;
    UpdateStatus(writer, state);
    EXPECT_NE(Inode(path), first);
    EXPECT_EQ(json::parse(ReadFile(path))["eth1"], json::parse(R"({"link": null})"));
    EXPECT_FALSE(writer.m_bEth1LinkDue);
}

TEST(UpdateStatusTest, InTheTwoPortModeEachLookThatFindsTheIsolationWholeRewritesIt) {
    Utc utc;
    TempDir dir;
    STATUS_WRITER writer;
    StartStatus(writer, dir.Path("run"), "/etc/x.conf");
    CYCLE_STATE state = IsolatedTwoPortState();
    UpdateStatus(writer, state);
    const std::string path = dir.Path("run/status.json");
    const ino_t first = Inode(path);
    // Passes between two looks: the document stays.
    state.m_isolation.m_nNextCheckMs += 1000;
    UpdateStatus(writer, state);
    EXPECT_EQ(Inode(path), first);
    // The next look, 10 s on.
    state.m_isolation.m_verifiedAt = {kStatusInstant + 40, 0};
    UpdateStatus(writer, state);
    EXPECT_NE(Inode(path), first);
    EXPECT_EQ(json::parse(ReadFile(path))["isolation"]["verified_at"], "2038-01-19T03:14:47+00:00");
}

TEST(UpdateStatusTest, AFailedWriteIsLoggedOnceAndTriedAgainAfterTheNextPass) {
    TempDir dir;
    // A file where the directory should be: every write fails until it is gone.
    std::ofstream(dir.Path("run")) << "in the way";
    STATUS_WRITER writer;
    StartStatus(writer, dir.Path("run"), "/etc/x.conf");
    const CYCLE_STATE state = TwoPortState();
    std::vector<std::string> failing;
    std::vector<std::string> again;
    {
        // The capture holds standard output: the checks come after it.
        LogCapture log;
        for (int pass = 0; pass < 3; ++pass) UpdateStatus(writer, state);
        failing = log.Messages();
        if (unlink(dir.Path("run").c_str()) == 0) {
            // Nothing changed in the state, yet the document is written.
            UpdateStatus(writer, state);
        }
        again = log.Messages();
    }
    const std::string path = dir.Path("run") + "/status.json";
    ASSERT_EQ(failing.size(), 1U);
    EXPECT_EQ(failing[0].rfind("WARN UpdateStatus: Unable to write status file " + path + ": ", 0), 0U) << failing[0];
    ASSERT_EQ(again.size(), 2U);
    EXPECT_EQ(again[1], "NOTICE UpdateStatus: Status file " + path + " written again");
    EXPECT_EQ(json::parse(ReadFile(path))["schema"], 1);
}

}  // namespace
