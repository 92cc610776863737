"""Facts of the device that tests and tools share (the daemon has its own copy
in C++): the tools it calls, the fixed addresses of the second internal network
and the example configurations. The expected command timelines are the tests'
fixtures (tests/fixtures, read with tesselkit.timelines)."""
import os

# The device's tools the daemon runs; tests and tools give it stand-ins for them.
TOOLS = ("ip", "bridge", "arptables", "iptables", "ebtables", "devmem", "udhcpc")
# Those the design's device has: ebtables is an addition, used where it exists.
DESIGN_TOOLS = tuple(tool for tool in TOOLS if tool != "ebtables")

# The second internal network, which the isolation rules keep off eth1 and veth0:
# veth3 and the host on eth0's side.
# (The shell tools name them in tools/twoport-net.)
VETH3_ADDR = "10.253.254.253"
VETH3_MAC = "02:23:02:00:00:00"
INTERNAL_HOST_ADDR = "10.253.254.254"
INTERNAL_HOST_MAC = "02:23:02:00:00:01"

# How the daemon starts a DHCP client, after "udhcpc -i INTERFACE".
DHCP_CLIENT_ARGS = "-b -R -s /usr/share/udhcpc/tessel.script"

def config_text(bridge, phy, veth1, veth3):
    """The text of a configuration of the four settings, one line each in the
    device's order: config_text("eth0", "copper", "dhcp", "static A MASK GW")."""
    return "bridge %s\nphy %s\nveth1 %s\nveth3 %s\n" % (bridge, phy, veth1, veth3)


EXAMPLES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "examples")


def example_path(name):
    """Path of an example configuration (examples/NAME.conf)."""
    return os.path.join(EXAMPLES, name + ".conf")


def example(name):
    with open(example_path(name)) as text:
        return text.read()


# Both ports bridged, veth1 by DHCP, veth3 static: what the demo and the lab tests run.
# dist/etc/tessel-networkd.conf is the commented example that is installed.
TWO_PORT_CONFIG = example("two-port")
