"""Command sequences that several system tests expect, as the stand-ins record them
(with /proc/cmdline holding "mac=02:00:00:00:00:42"). Written out by hand, in run order."""
from tesselkit import device

START_UP = [
    "ip link set dev lo up",
    "ip link set dev eth1 down",
    "ip link set dev eth1 up",
]

# The eth0 link recovery's register writes (the toolkit's device facts).
REGISTER_WRITES = device.REGISTER_SEQUENCE

# br0 with eth0 as its only port (configuration word "eth0").
BRIDGE_ETH0 = [
    "ip link set br0 down",
    "ip addr flush dev br0",
    "ip link set eth0 down",
    "ip addr flush dev eth0",
    "ip link set eth1 down",
    "ip addr flush dev eth1",
    "ip link del name br0",
    "ip link add name br0 type bridge",
    "ip link set br0 up",
    "ip addr flush dev br0",
    "ip link set br0 arp off",
    "ip link set eth0 master br0",
    "ip link set eth0 up",
    "ip link add name veth1 type veth",
    "ip link set veth0 master br0",
    "ip link set veth0 up",
    "ip link set veth1 up",
    "ip link set dev veth1 address 02:00:00:00:00:42",
    "ip addr flush dev br0",
    "ip link set br0 arp off",
    "ip link set eth0 arp off",
]

# br0 with eth1 as its only port (configuration word "eth1").
BRIDGE_ETH1 = [
    "ip link set br0 down",
    "ip addr flush dev br0",
    "ip link set eth0 down",
    "ip addr flush dev eth0",
    "ip link set eth1 down",
    "ip addr flush dev eth1",
    "ip link del name br0",
    "ip link add name br0 type bridge",
    "ip link set br0 up",
    "ip addr flush dev br0",
    "ip link set br0 arp off",
    "ip link set eth1 master br0",
    "ip link set eth1 up",
    "ip link add name veth1 type veth",
    "ip link set veth0 master br0",
    "ip link set veth0 up",
    "ip link set veth1 up",
    "ip link set dev veth1 address 02:00:00:00:00:42",
    "ip addr flush dev br0",
    "ip link set br0 arp off",
    "ip link set eth1 arp off",
]

# br0 with both ports bridged (configuration word "eth0eth1"): the ports, both veth
# pairs, and the ARP and IP rules that keep the second internal network off eth1 and veth0.

BRIDGE_ETH0ETH1 = [
    # br0 from scratch
    "ip link set br0 down",
    "ip addr flush dev br0",
    "ip link set eth0 down",
    "ip addr flush dev eth0",
    "ip link set eth1 down",
    "ip addr flush dev eth1",
    "ip link del name br0",
    "ip link add name br0 type bridge",
    "ip link set br0 up",
    "ip addr flush dev br0",
    "ip link set br0 arp off",
    # both ports
    "ip link set eth0 master br0",
    "ip link set eth0 up",
    "ip link set eth1 master br0",
    "ip link set eth1 up",
    # veth0/veth1, veth1 with the kernel command line's MAC
    "ip link add name veth1 type veth",
    "ip link set veth0 master br0",
    "ip link set veth0 up",
    "ip link set veth1 up",
    "ip link set dev veth1 address 02:00:00:00:00:42",
    "ip addr flush dev br0",
    "ip link set br0 arp off",
    "ip link set eth0 arp off",
    "ip link set eth1 arp off",
    # veth2/veth3
    "ip link add name veth3 type veth",
    "ip link set veth2 master br0",
    "ip link set veth2 up",
    "ip link set veth3 up",
    "ip link set dev veth3 address 02:23:02:00:00:00",
    # ARP between the ports
    "arptables -F",
    "arptables -A FORWARD --in-interface veth2 --out-interface veth0 -j DROP",
    "arptables -A FORWARD --in-interface veth0 --out-interface veth2 -j DROP",
    "arptables -A FORWARD --in-interface veth2 --out-interface eth1 -j DROP",
    "arptables -A FORWARD --in-interface eth1 --out-interface veth2 -j DROP",
    "arptables -A FORWARD --in-interface veth0 --out-interface eth0 -j DROP",
    "arptables -A FORWARD --in-interface eth0 --out-interface veth0 -j DROP",
    # ARP of the internal addresses
    "arptables -A FORWARD --source-ip 10.253.254.253 --in-interface eth1 -j DROP",
    "arptables -A FORWARD --destination-ip 10.253.254.253 --in-interface eth1 -j DROP",
    "arptables -A FORWARD --source-ip 10.253.254.254 --in-interface eth1 -j DROP",
    "arptables -A FORWARD --destination-ip 10.253.254.254 --in-interface eth1 -j DROP",
    "arptables -A FORWARD --source-ip 10.253.254.253 --out-interface eth1 -j DROP",
    "arptables -A FORWARD --destination-ip 10.253.254.253 --out-interface eth1 -j DROP",
    "arptables -A FORWARD --source-ip 10.253.254.254 --out-interface eth1 -j DROP",
    "arptables -A FORWARD --destination-ip 10.253.254.254 --out-interface eth1 -j DROP",
    "arptables -A FORWARD --source-ip 10.253.254.253 --in-interface veth0 -j DROP",
    "arptables -A FORWARD --destination-ip 10.253.254.253 --in-interface veth0 -j DROP",
    "arptables -A FORWARD --source-ip 10.253.254.254 --in-interface veth0 -j DROP",
    "arptables -A FORWARD --destination-ip 10.253.254.254 --in-interface veth0 -j DROP",
    "arptables -A FORWARD --source-ip 10.253.254.253 --out-interface veth0 -j DROP",
    "arptables -A FORWARD --destination-ip 10.253.254.253 --out-interface veth0 -j DROP",
    "arptables -A FORWARD --source-ip 10.253.254.254 --out-interface veth0 -j DROP",
    "arptables -A FORWARD --destination-ip 10.253.254.254 --out-interface veth0 -j DROP",
    # ARP of the internal MACs
    "arptables -A FORWARD --source-mac 02:23:02:00:00:00 --in-interface eth1 -j DROP",
    "arptables -A FORWARD --destination-mac 02:23:02:00:00:00 --in-interface eth1 -j DROP",
    "arptables -A FORWARD --source-mac 02:23:02:00:00:01 --in-interface eth1 -j DROP",
    "arptables -A FORWARD --destination-mac 02:23:02:00:00:01 --in-interface eth1 -j DROP",
    "arptables -A FORWARD --source-mac 02:23:02:00:00:00 --out-interface eth1 -j DROP",
    "arptables -A FORWARD --destination-mac 02:23:02:00:00:00 --out-interface eth1 -j DROP",
    "arptables -A FORWARD --source-mac 02:23:02:00:00:01 --out-interface eth1 -j DROP",
    "arptables -A FORWARD --destination-mac 02:23:02:00:00:01 --out-interface eth1 -j DROP",
    "arptables -A FORWARD --source-mac 02:23:02:00:00:00 --in-interface veth0 -j DROP",
    "arptables -A FORWARD --destination-mac 02:23:02:00:00:00 --in-interface veth0 -j DROP",
    "arptables -A FORWARD --source-mac 02:23:02:00:00:01 --in-interface veth0 -j DROP",
    "arptables -A FORWARD --destination-mac 02:23:02:00:00:01 --in-interface veth0 -j DROP",
    "arptables -A FORWARD --source-mac 02:23:02:00:00:00 --out-interface veth0 -j DROP",
    "arptables -A FORWARD --destination-mac 02:23:02:00:00:00 --out-interface veth0 -j DROP",
    "arptables -A FORWARD --source-mac 02:23:02:00:00:01 --out-interface veth0 -j DROP",
    "arptables -A FORWARD --destination-mac 02:23:02:00:00:01 --out-interface veth0 -j DROP",
    # IP of the internal addresses, arriving on or leaving through eth1
    "iptables -F",
    "iptables -A INPUT --source 10.253.254.254 -m physdev --physdev-in eth1 -j DROP",
    "iptables -A INPUT --source 10.253.254.253 -m physdev --physdev-in eth1 -j DROP",
    "iptables -A INPUT --destination 10.253.254.254 -m physdev --physdev-in eth1 -j DROP",
    "iptables -A INPUT --destination 10.253.254.253 -m physdev --physdev-in eth1 -j DROP",
    "iptables -A FORWARD --source 10.253.254.254 -m physdev --physdev-in eth1 -j DROP",
    "iptables -A FORWARD --source 10.253.254.253 -m physdev --physdev-in eth1 -j DROP",
    "iptables -A FORWARD --destination 10.253.254.254 -m physdev --physdev-in eth1 -j DROP",
    "iptables -A FORWARD --destination 10.253.254.253 -m physdev --physdev-in eth1 -j DROP",
    "iptables -A FORWARD --source 10.253.254.254 -m physdev --physdev-out eth1 -j DROP",
    "iptables -A FORWARD --source 10.253.254.253 -m physdev --physdev-out eth1 -j DROP",
    "iptables -A FORWARD --destination 10.253.254.254 -m physdev --physdev-out eth1 -j DROP",
    "iptables -A FORWARD --destination 10.253.254.253 -m physdev --physdev-out eth1 -j DROP",
    # eth1 learns nothing
    "bridge link set dev eth1 learning_sync off",
    "bridge link set dev eth1 learning off",
    "ip -s -s neigh flush all",
]
