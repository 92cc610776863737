"""Command sequences that several system tests expect, as the stand-ins record them
(with /proc/cmdline holding "mac=02:00:00:00:00:42"). Written out by hand, in run order;
the long ones are the fixtures the C++ tests read too."""
from tesselkit import timelines

# The MAC the system tests' /proc/cmdline gives veth1.
VETH1_MAC = "02:00:00:00:00:42"


def _commands(name):
    return timelines.commands(timelines.fixture(name, VETH1_MAC=VETH1_MAC))


# eth1 blocked at the bridge (the nat table of ebtables) before anything of a two-port
# build or repair (and at start-up, only where br0 of an earlier run carries eth1);
# the block lifted as its last commands.
ETH1_BLOCK = _commands("eth1-block.timeline")
ETH1_LIFT = _commands("eth1-lift.timeline")
# veth0 blocked the same way around a two-port build and a repair.
VETH0_BLOCK = _commands("veth0-block.timeline")
VETH0_LIFT = _commands("veth0-lift.timeline")

# What those blocks put in ebtables' nat table, as its stand-in lists it.
ETH1_BLOCKED = ["-A PREROUTING -i eth1 -j DROP", "-A POSTROUTING -o eth1 -j DROP"]
VETH0_BLOCKED = ["-A PREROUTING -i veth0 -j DROP", "-A POSTROUTING -o veth0 -j DROP"]

# The design's start-up; no block on eth1 where no earlier br0 carries it.
START_UP = [
    "ip link set dev lo up",
    "ip link set dev eth1 down",
    "ip link set dev eth1 up",
]

# The eth0 link recovery's register writes.
REGISTER_WRITES = _commands("register-writes.timeline")

# SetupBridge's own commands for each configuration word; a whole build adds the
# block before them and more after (BUILD_* below).
BRIDGE_ETH0 = _commands("bridge-eth0.timeline")
BRIDGE_ETH1 = _commands("bridge-eth1.timeline")
# Both ports: the ports, both veth pairs, and the ARP and IP rules that keep the
# second internal network off eth1 and veth0 (84 commands).
BRIDGE_ETH0ETH1 = _commands("bridge-eth0eth1.timeline")

# After the two-port build's own commands: bridge netfilter for br0, the 22
# link-layer rules, and the look at the three tables (arptables -L -n, iptables -S,
# ebtables -L).
ISOLATION_COMPLETE = _commands("isolation-complete.timeline")
# The look every 10 s in the two-port mode.
ISOLATION_LOOK = _commands("isolation-look.timeline")
# The build's ARP and IP rules alone, as a repair puts them back.
ISOLATION_RULES = _commands("isolation-rules.timeline")
# Outside the two-port mode a build removes the link-layer rules (and a block on
# veth0 a cut-short two-port build left).
REMOVE_LINK_LAYER_RULES = _commands("link-layer-removal.timeline")

# Whole builds as a pass runs them. In the two-port mode: blocked, built, completed,
# lifted. In the others the design's build, and, where there may be link-layer rules
# (the run's first such build with ebtables on the path, or after a two-port
# build), their quiet removal; LATER_BUILD_* where there are none.
BUILD_ETH0 = BRIDGE_ETH0 + REMOVE_LINK_LAYER_RULES
BUILD_ETH1 = BRIDGE_ETH1 + REMOVE_LINK_LAYER_RULES
LATER_BUILD_ETH0 = BRIDGE_ETH0
LATER_BUILD_ETH1 = BRIDGE_ETH1
BUILD_ETH0ETH1 = ETH1_BLOCK + VETH0_BLOCK + BRIDGE_ETH0ETH1 + ISOLATION_COMPLETE + VETH0_LIFT + ETH1_LIFT

# The isolation put back after a look found the IP and link-layer tables
# emptied: eth1 and veth0 blocked, only those tables' rules appended again (no
# flush), a look, the blocks lifted.
ISOLATION_REPAIR_IP_AND_LINK_LAYER = (ETH1_BLOCK + VETH0_BLOCK +
                                      [c for c in ISOLATION_RULES if c.startswith("iptables -A ")] +
                                      [c for c in ISOLATION_COMPLETE if c.startswith("ebtables -A ")] +
                                      ISOLATION_LOOK + VETH0_LIFT + ETH1_LIFT)

# The link layer put in as a repair once ebtables works: eth1 and veth0 blocked,
# a look to find what is missing, the link-layer rules appended, a look, the
# blocks lifted.
ISOLATION_REPAIR_LINK_LAYER = (ETH1_BLOCK + VETH0_BLOCK + ISOLATION_LOOK +
                               [c for c in ISOLATION_COMPLETE if c.startswith("ebtables -A ")] +
                               ISOLATION_LOOK + VETH0_LIFT + ETH1_LIFT)


def _appended_after_last_flush(commands, tool):
    """The rules `commands` leave in `tool`'s filter table, as its stand-in lists them."""
    rules = []
    for command in commands:
        words = command.split(" ", 2)
        if words[0] != tool or words[1:2] == ["-t"]:
            continue
        if words[1] == "-F":
            rules = []
        elif words[1] == "-A":
            rules.append("-A " + words[2])
    return rules


# What the stand-ins' filter tables hold after a whole two-port build (the rules of
# tesselkit.timelines.isolation_rules); ebtables' nat table is empty then, the blocks lifted.
ISOLATION_TABLES = {tool: _appended_after_last_flush(BUILD_ETH0ETH1, tool)
                    for tool in ("arptables", "iptables", "ebtables")}

# What the daemon logs once the look after a two-port build found everything.
ISOLATION_IN_FORCE = "Isolation in force: 38 ARP, 12 IP and 28 link-layer rules, bridge netfilter for br0"
