#!/usr/bin/env python3
"""tessel-networkctl on the simulated device: both ports bridged, veth1 by DHCP
from the lab's server, veth3 static. The command's table (printed here, within
80 columns) and its JSON agree with what the device has: the lease dnsmasq gave
and its server, the client that got it, eth0's and eth1's links. Stopped, the daemon is reported as not running."""
import json
import re

from labtest import LabTestCase, main
from tesselkit.device import TWO_PORT_CONFIG, VETH3_ADDR
from tesselkit.waiting import wait_until


class StatusOnTheDeviceTest(LabTestCase):
    def test_the_table_and_the_document_show_the_device(self):
        # A plain file on the device stands in for the PHY driver's, which the lab lacks.
        self.lab.start(TWO_PORT_CONFIG, phy_file="/tmp/marvell-phy-0-port")
        lease = self.lab.wait_for_lease()
        self.lab.wait_for_cycles(2)

        def healthy():
            result = self.lab.ctl("status")
            return result if result.returncode == 0 else None

        table = wait_until(healthy, "tessel-networkctl status to report the device healthy", 15).stdout
        print("\n" + table)
        self.assertRegex(table, r"State: +healthy\n")
        self.assertRegex(table, r"Bridge mode: +eth0eth1 \(configured eth0eth1\)\n")
        self.assertRegex(table, r"eth0: +up, 0 recoveries\n")
        self.assertRegex(table, r"PHY mode: +frame \(configured frame\)\n")
        self.assertEqual(self.lab.device("cat", "/tmp/marvell-phy-0-port").stdout, "4")
        clients = self.lab.udhcpc_clients()
        self.assertEqual(len(clients), 1, clients)
        pid = list(clients)[0]
        # dnsmasq is the router too: it names itself as the lease's server.
        server = re.escape(self.lab.env["PEER1_ADDR"])
        self.assertRegex(table, r"\nveth1: +dhcp %s/24 via %s, metric 10\n +lease from %s, taken \S+, \d+s old\n"
                                r" +DHCP client pid %d, 1 started\n" % (re.escape(lease), server, server, pid))
        self.assertRegex(table, r"\nveth3: +static %s/24, no gateway, metric 100\n" % re.escape(VETH3_ADDR))
        self.assertRegex(table, r"\neth1: +link up\n")
        self.assertLessEqual(max(len(line) for line in table.split("\n")), 80, table)

        result = self.lab.ctl("status", "--json")
        self.assertEqual(result.returncode, 0, result.stderr)
        document = self.lab.status_document()
        self.assertEqual(json.loads(result.stdout), document)
        veth1 = document["interfaces"][0]
        self.assertEqual((veth1["name"], veth1["address"], veth1["from_dhcp"], veth1["dhcp_client"]["pid"],
                          veth1["lease_server"]), ("veth1", lease, True, pid, self.lab.env["PEER1_ADDR"]))
        self.assertEqual(document["eth1"], {"link": "up"})

        self.lab.stop()
        result = self.lab.ctl("status")
        self.assertEqual(result.returncode, 3, result.stdout + result.stderr)
        self.assertRegex(result.stdout, r"State: +not running")


if __name__ == "__main__":
    main()
