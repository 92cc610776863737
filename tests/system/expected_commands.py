"""Command sequences that several system tests expect, as the stand-ins record them
(with /proc/cmdline holding "mac=02:00:00:00:00:42"). Written out by hand, in run order;
the long ones are the fixtures the C++ tests read too."""
from tesselkit import timelines

# The MAC the system tests' /proc/cmdline gives veth1.
VETH1_MAC = "02:00:00:00:00:42"

START_UP = [
    "ip link set dev lo up",
    "ip link set dev eth1 down",
    "ip link set dev eth1 up",
]

# The eth0 link recovery's register writes.
REGISTER_WRITES = timelines.commands(timelines.fixture("register-writes.timeline"))

# br0 with eth0 as its only port (configuration word "eth0").
BRIDGE_ETH0 = timelines.commands(timelines.fixture("bridge-eth0.timeline", VETH1_MAC=VETH1_MAC))

# br0 with eth1 as its only port (configuration word "eth1").
BRIDGE_ETH1 = timelines.commands(timelines.fixture("bridge-eth1.timeline", VETH1_MAC=VETH1_MAC))

# br0 with both ports bridged (configuration word "eth0eth1"): the ports, both veth
# pairs, and the ARP and IP rules that keep the second internal network off eth1 and veth0.
BRIDGE_ETH0ETH1 = timelines.commands(timelines.fixture("bridge-eth0eth1.timeline", VETH1_MAC=VETH1_MAC))
