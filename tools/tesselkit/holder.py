"""Init of the device lab's mount and PID namespace (tools/lab up runs it as
the namespace's first process, from a copy in the lab's state, with only the
standard library):

    python3 holder.py STATE [unit]

Gives the device its own view of the machine: a private /tmp (the lease
files), a private /run (the daemon's status document) in which STATE stays
where it was, its own /sys, STATE/cmdline as /proc/cmdline and STATE/tessel.script as
/usr/share/udhcpc/tessel.script. Then reaps the processes the DHCP clients
leave to it, and ends on SIGTERM, which takes everything in the namespace with
it. STATE/holder.ready says it is ready. With "unit", /run is then made
read-only as the shipped systemd unit has it (ProtectSystem=strict), but for
the unit's runtime directory, after the entries of STATE/tmpfiles.conf (the
packaged tmpfiles.d file) for files under /run were made, as at boot.
"""
import ctypes
import os
import signal
import subprocess
import sys
import time

MS_BIND = 4096


def mount(*args):
    subprocess.run(["mount"] + list(args), check=True)


def as_the_unit(state):
    """The device's /run as the unit's sandbox leaves it."""
    with open(os.path.join(state, "tmpfiles.conf")) as entries:
        for line in entries:
            fields = line.split()
            if len(fields) >= 3 and fields[0] == "f" and fields[1].startswith("/run/"):
                os.close(os.open(fields[1], os.O_CREAT | os.O_WRONLY, int(fields[2], 8)))
    # RuntimeDirectory=tessel-networkd stays writable; the state is a mount of
    # its own already.
    os.makedirs("/run/tessel-networkd", exist_ok=True)
    mount("--bind", "/run/tessel-networkd", "/run/tessel-networkd")
    mount("-o", "remount,bind,ro", "/run")


def main():
    state = sys.argv[1]
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
    os.chdir("/")  # whatever the caller's directory was, it may be hidden below the private /tmp
    # The state lies under the machine's /run: held open, it is bound back to its
    # path in the private /run, where the daemon and the tools run from it.
    held = os.open(state, os.O_PATH | os.O_DIRECTORY)
    mount("-t", "tmpfs", "-o", "mode=0755", "tessel-lab-run", "/run")
    os.makedirs(state)
    # mount(8) would resolve the descriptor's path to the new, empty one: the
    # system call binds what the descriptor holds.
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.mount(("/proc/self/fd/%d" % held).encode(), state.encode(), None, MS_BIND, None) != 0:
        raise OSError(ctypes.get_errno(), "bind %s back into the private /run" % state)
    os.close(held)
    mount("-t", "tmpfs", "-o", "mode=1777", "tessel-lab-tmp", "/tmp")
    mount("-t", "sysfs", "sysfs", "/sys")
    mount("--bind", os.path.join(state, "cmdline"), "/proc/cmdline")
    # /usr/share/udhcpc need not exist here: an overlay gives the script a place.
    mount("-t", "overlay", "tessel-lab-share", "-o", "lowerdir=/usr/share,upperdir=%s,workdir=%s"
          % (os.path.join(state, "share-upper"), os.path.join(state, "share-work")), "/usr/share")
    os.makedirs("/usr/share/udhcpc", exist_ok=True)
    open("/usr/share/udhcpc/tessel.script", "a").close()
    mount("--bind", os.path.join(state, "tessel.script"), "/usr/share/udhcpc/tessel.script")
    if sys.argv[2:] == ["unit"]:
        as_the_unit(state)
    open(os.path.join(state, "holder.ready"), "w").close()
    while True:
        try:
            os.wait()
        except ChildProcessError:
            time.sleep(0.2)


if __name__ == "__main__":
    main()
