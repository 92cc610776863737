"""The Python side of tessel-networkd's tests and tools, one module a concern:

    device      facts of the device: the register write sequence, its tools, example configurations
    standins    recording stand-ins for the device's tools, and reading what they recorded
    waiting     polling until a condition holds
    inotify     file events of a directory or file
    namespaces  the runner that puts a command into new namespaces (start), probes and helpers
    logs        the daemon's log lines
    netlink     links, addresses, routes and bridge ports of a network namespace (pyroute2)
    frames      raw Ethernet frames sent and captured on an interface (scapy)
    lab         the device lab (tools/lab): its layout and the lab as an object
    isolation   the isolation checks of a running two-port lab (python3 -m tesselkit.isolation)
    bench       tools/bench, one module a measurement

The import root is tools/ (PYTHONPATH). Tests import from here; nothing here
imports tests, and no module imports one that imports it. The modules that need
Debian's python3-pyroute2 and python3-scapy (netlink, frames, lab, isolation)
are only imported by those that use them.
"""
import os

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
