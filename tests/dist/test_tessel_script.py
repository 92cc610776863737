#!/usr/bin/env python3
"""The udhcpc script on its own: run with the environment BusyBox udhcpc gives
it, it must leave exactly the lease file the daemon reads in /tmp.

Runs under /bin/sh and, where installed, BusyBox's sh (the device's shell). Each
test uses an interface name of its own, so nothing real is touched.
"""
import glob
import os
import shutil
import subprocess
import unittest

SCRIPT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "dist", "udhcpc", "tessel.script")


def shells():
    found = [["/bin/sh"]]
    busybox = shutil.which("busybox")
    if busybox:
        found.append([busybox, "sh"])
    return found


class TesselScriptTest(unittest.TestCase):
    def setUp(self):
        self.interface = "tst%d" % os.getpid()
        self.lease = "/tmp/dhcp_%s.txt" % self.interface
        self.cleanup()
        self.addCleanup(self.cleanup)

    def cleanup(self):
        for path in glob.glob("/tmp/dhcp_%s.txt*" % self.interface) + glob.glob(
                "/tmp/.dhcp_%s.txt*" % self.interface):
            os.remove(path)

    def run_script(self, shell, command, **lease):
        # What udhcpc exports for a lease from a typical server.
        env = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "interface": self.interface}
        env.update(lease)
        return subprocess.run(shell + [SCRIPT, command], env=env, capture_output=True, text=True, timeout=10)

    def bound_env(self, **extra):
        env = {"ip": "192.168.77.123", "subnet": "255.255.255.0", "mask": "24", "broadcast": "192.168.77.255",
               "router": "192.168.77.1", "dns": "192.168.77.1", "serverid": "192.168.77.1", "lease": "120",
               "siaddr": "192.168.77.1"}
        env.update(extra)
        return env

    def read_lease(self):
        with open(self.lease) as f:
            return f.read()

    def leftovers(self):
        return sorted(glob.glob("/tmp/.dhcp_%s*" % self.interface))

    def test_bound_writes_interface_address_mask_and_first_router(self):
        for shell in shells():
            with self.subTest(shell=shell):
                result = self.run_script(shell, "bound", **self.bound_env(router="192.168.77.1 192.168.77.2"))
                self.assertEqual(0, result.returncode, result.stderr)
                self.assertEqual(self.interface + " 192.168.77.123 255.255.255.0\n192.168.77.1\n", self.read_lease())
                self.assertEqual([], self.leftovers())

    def test_renew_without_router_leaves_out_the_second_line(self):
        for shell in shells():
            with self.subTest(shell=shell):
                env = self.bound_env(ip="10.0.0.5", subnet="255.255.0.0")
                del env["router"]
                result = self.run_script(shell, "renew", **env)
                self.assertEqual(0, result.returncode, result.stderr)
                self.assertEqual(self.interface + " 10.0.0.5 255.255.0.0\n", self.read_lease())

    def test_deconfig_reports_no_lease(self):
        for shell in shells():
            with self.subTest(shell=shell):
                self.run_script(shell, "bound", **self.bound_env())
                result = self.run_script(shell, "deconfig")
                self.assertEqual(0, result.returncode, result.stderr)
                self.assertEqual(self.interface + " 0.0.0.0 0.0.0.0\n", self.read_lease())
                self.assertEqual([], self.leftovers())

    def test_leasefail_and_nak_change_nothing(self):
        for shell in shells():
            for command in ("leasefail", "nak"):
                with self.subTest(shell=shell, command=command):
                    self.cleanup()
                    result = self.run_script(shell, command, message="no offer")
                    self.assertEqual(0, result.returncode, result.stderr)
                    self.assertFalse(os.path.exists(self.lease), "a file appeared without a lease")

                    self.run_script(shell, "bound", **self.bound_env())
                    before = os.stat(self.lease)
                    result = self.run_script(shell, command, message="no offer")
                    self.assertEqual(0, result.returncode, result.stderr)
                    self.assertEqual(self.interface + " 192.168.77.123 255.255.255.0\n192.168.77.1\n",
                                     self.read_lease())
                    self.assertEqual(before.st_ino, os.stat(self.lease).st_ino)

    def test_file_is_replaced_whole_never_rewritten_in_place(self):
        # A reader that opened the old file keeps seeing the old lease whole: the
        # new one arrives under a new inode by rename.
        for shell in shells():
            with self.subTest(shell=shell):
                self.run_script(shell, "bound", **self.bound_env())
                old = self.lease + ".reader"
                os.link(self.lease, old)
                self.run_script(shell, "bound", **self.bound_env(ip="192.168.77.124"))
                with open(old) as f:
                    self.assertEqual(self.interface + " 192.168.77.123 255.255.255.0\n192.168.77.1\n", f.read())
                self.assertEqual(self.interface + " 192.168.77.124 255.255.255.0\n192.168.77.1\n", self.read_lease())
                self.assertNotEqual(os.stat(old).st_ino, os.stat(self.lease).st_ino)
                self.assertEqual([], self.leftovers())
                os.remove(old)

    def test_without_interface_writes_nothing(self):
        for shell in shells():
            with self.subTest(shell=shell):
                env = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"}
                env.update(self.bound_env())
                before = glob.glob("/tmp/dhcp_.txt") + glob.glob("/tmp/.dhcp_.txt*")
                result = subprocess.run(shell + [SCRIPT, "bound"], env=env, capture_output=True, timeout=10)
                self.assertNotEqual(0, result.returncode)
                self.assertEqual(before, glob.glob("/tmp/dhcp_.txt") + glob.glob("/tmp/.dhcp_.txt*"))


if __name__ == "__main__":
    unittest.main(verbosity=2)
