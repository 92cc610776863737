"""Init of the device lab's mount and PID namespace (tools/lab up runs it as
the namespace's first process, from a copy in the lab's state, with only the
standard library):

    python3 holder.py STATE

Gives the device its own view of the machine: a private /tmp (the lease
files), its own /sys, STATE/cmdline as /proc/cmdline and STATE/tessel.script as
/usr/share/udhcpc/tessel.script. Then reaps the processes the DHCP clients
leave to it, and ends on SIGTERM, which takes everything in the namespace with
it. STATE/holder.ready says it is ready.
"""
import os
import signal
import subprocess
import sys
import time


def mount(*args):
    subprocess.run(["mount"] + list(args), check=True)


def main():
    state = sys.argv[1]
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
    os.chdir("/")  # whatever the caller's directory was, it may be hidden below the private /tmp
    mount("-t", "tmpfs", "-o", "mode=1777", "tessel-lab-tmp", "/tmp")
    mount("-t", "sysfs", "sysfs", "/sys")
    mount("--bind", os.path.join(state, "cmdline"), "/proc/cmdline")
    # /usr/share/udhcpc need not exist here: an overlay gives the script a place.
    mount("-t", "overlay", "tessel-lab-share", "-o", "lowerdir=/usr/share,upperdir=%s,workdir=%s"
          % (os.path.join(state, "share-upper"), os.path.join(state, "share-work")), "/usr/share")
    os.makedirs("/usr/share/udhcpc", exist_ok=True)
    open("/usr/share/udhcpc/tessel.script", "a").close()
    mount("--bind", os.path.join(state, "tessel.script"), "/usr/share/udhcpc/tessel.script")
    open(os.path.join(state, "holder.ready"), "w").close()
    while True:
        try:
            os.wait()
        except ChildProcessError:
            time.sleep(0.2)


if __name__ == "__main__":
    main()
