"""The stripped size of the daemon built for the 32-bit ARM device."""
import os
import shutil

from . import ROOT, build, run_quiet


def measure():
    """(bytes, "") or (None, why not)."""
    toolchain = os.path.join(ROOT, "cmake", "arm-linux-gnueabihf.cmake")
    if not os.path.exists(toolchain):
        return None, "no cmake/arm-linux-gnueabihf.cmake in this tree"
    if shutil.which("arm-linux-gnueabihf-g++") is None:
        return None, "arm-linux-gnueabihf-g++ not installed"
    directory = os.path.join(ROOT, "build-bench-arm")
    build(directory, ["-DCMAKE_TOOLCHAIN_FILE=" + toolchain])
    stripped = os.path.join(directory, "tessel-networkd.stripped")
    run_quiet(["arm-linux-gnueabihf-strip", "-o", stripped, os.path.join(directory, "tessel-networkd")])
    return os.path.getsize(stripped), ""
