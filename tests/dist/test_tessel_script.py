#!/usr/bin/env python3
"""The udhcpc script on its own: run with the environment BusyBox udhcpc gives
it, it must leave exactly the lease file the daemon reads in /tmp, and nothing
planted in /tmp may make it write anywhere else.

Runs under /bin/sh, dash, bash and, where installed, BusyBox's sh with only
BusyBox's own applets on PATH (the device's shell and tools). Each test uses an
interface name of its own, so nothing real is touched. The tests that need
namespaces (a full /tmp, a predictable process ID) need root and skip without
it, unless TESSEL_REQUIRE_NAMESPACES=1.
"""
import atexit
import glob
import os
import shutil
import stat
import subprocess
import tempfile
import unittest

SCRIPT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "dist", "udhcpc", "tessel.script")
PATH = "/usr/sbin:/usr/bin:/sbin:/bin"
UNSHARE = shutil.which("unshare") or "unshare"


def busybox_applets():
    """A directory of BusyBox applet links, so a run uses BusyBox's mktemp and mv."""
    busybox = shutil.which("busybox")
    if not busybox:
        return None
    directory = tempfile.mkdtemp(prefix="tessel-busybox-")
    atexit.register(shutil.rmtree, directory, True)
    for applet in APPLETS:
        os.symlink(busybox, os.path.join(directory, applet))
    return busybox, directory


# What the script may run, with the options BusyBox 1.22 (2014) gave each: the
# oldest BusyBox the device may have. mv -T, for one, came only with 1.34.
OLD_OPTIONS = {"mktemp": "dqtp", "mv": "fin", "rm": "fir", "rmdir": "p", "cat": "u", "printf": "", "echo": "neE"}
APPLETS = tuple(OLD_OPTIONS)

OLD_APPLET = """#!/bin/sh
# BusyBox's @APPLET@, refusing any option BusyBox 1.22 did not have.
for argument; do
    case "$argument" in
    --) break ;;
    -?*) letters=${argument#-}
         while [ -n "$letters" ]; do
             rest=${letters#?}; letter=${letters%"$rest"}; letters=$rest
             case "@OPTIONS@" in
             *"$letter"*) ;;
             *) echo "@APPLET@: invalid option -- '$letter'" >&2; exit 1 ;;
             esac
         done ;;
    *) break ;;
    esac
done
exec @BUSYBOX@ @APPLET@ "$@"
"""


def old_busybox_applets(busybox):
    """A directory of the script's applets as BusyBox 1.22 had them."""
    directory = tempfile.mkdtemp(prefix="tessel-busybox-1.22-")
    atexit.register(shutil.rmtree, directory, True)
    for applet, options in OLD_OPTIONS.items():
        path = os.path.join(directory, applet)
        with open(path, "w") as out:
            out.write(OLD_APPLET.replace("@APPLET@", applet).replace("@OPTIONS@", options or "-")
                      .replace("@BUSYBOX@", busybox))
        os.chmod(path, 0o755)
    return directory


BUSYBOX = busybox_applets()
OLD_BUSYBOX = old_busybox_applets(BUSYBOX[0]) if BUSYBOX else None


def shells():
    """(argv prefix, PATH) of each shell to run the script with."""
    found = [(["/bin/sh"], PATH)]
    for name in ("dash", "bash"):
        path = shutil.which(name)
        if path:
            found.append(([path], PATH))
    if BUSYBOX:
        found.append(([BUSYBOX[0], "sh"], BUSYBOX[1]))
        found.append(([BUSYBOX[0], "sh"], OLD_BUSYBOX))
    return found


def namespaces_unavailable():
    """Empty when this process may create mount and PID namespaces, else why not."""
    if os.geteuid() != 0:
        return "needs root for mount and PID namespaces"
    probe = subprocess.run([UNSHARE, "--mount", "--pid", "--fork", "true"], capture_output=True)
    if probe.returncode != 0:
        return "cannot create namespaces here: " + probe.stderr.decode().strip()
    return ""


def need_namespaces(test):
    why = namespaces_unavailable()
    if why:
        if os.environ.get("TESSEL_REQUIRE_NAMESPACES") == "1":
            test.fail(why + " (TESSEL_REQUIRE_NAMESPACES=1)")
        test.skipTest(why)


class TesselScriptTest(unittest.TestCase):
    def setUp(self):
        self.interface = "tst%d" % os.getpid()
        self.lease = "/tmp/dhcp_%s.txt" % self.interface
        self.cleanup()
        self.addCleanup(self.cleanup)

    def cleanup(self):
        for path in glob.glob("/tmp/dhcp_%s.txt*" % self.interface) + glob.glob(
                "/tmp/.dhcp_%s.txt*" % self.interface):
            if os.path.isdir(path) and not os.path.islink(path):
                shutil.rmtree(path)
            else:
                os.remove(path)

    def run_script(self, shell, command, prefix=(), **lease):
        # What udhcpc exports for a lease from a typical server.
        argv, path = shell
        env = {"PATH": path, "interface": self.interface}
        env.update(lease)
        return subprocess.run(list(prefix) + argv + [SCRIPT, command], env=env, capture_output=True, text=True,
                              timeout=10)

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
        """Anything in /tmp of this interface but the lease file itself."""
        found = glob.glob("/tmp/.dhcp_%s*" % self.interface) + glob.glob(self.lease + "?*")
        return sorted(path for path in found if not path.endswith((".victim", ".reader")))

    def victim(self):
        """A file of root's that a planted link points at; it must never change."""
        path = self.lease + ".victim"
        with open(path, "w") as f:
            f.write("precious\n")
        return path

    def test_bound_writes_interface_address_mask_server_and_first_router(self):
        for shell in shells():
            with self.subTest(shell=shell[0]):
                result = self.run_script(shell, "bound", **self.bound_env(router="192.168.77.1 192.168.77.2"))
                self.assertEqual(0, result.returncode, result.stderr)
                self.assertEqual(self.interface + " 192.168.77.123 255.255.255.0 192.168.77.1\n192.168.77.1\n", self.read_lease())
                self.assertEqual([], self.leftovers())

    def test_the_server_follows_the_mask_only_when_udhcpc_names_one(self):
        for shell in shells():
            with self.subTest(shell=shell[0]):
                env = self.bound_env(serverid="192.168.77.254")
                result = self.run_script(shell, "bound", **env)
                self.assertEqual(0, result.returncode, result.stderr)
                self.assertEqual(self.interface + " 192.168.77.123 255.255.255.0 192.168.77.254\n192.168.77.1\n",
                                 self.read_lease())
                del env["serverid"]
                result = self.run_script(shell, "renew", **env)
                self.assertEqual(0, result.returncode, result.stderr)
                self.assertEqual(self.interface + " 192.168.77.123 255.255.255.0\n192.168.77.1\n", self.read_lease())

    def test_renew_without_router_leaves_out_the_second_line(self):
        for shell in shells():
            with self.subTest(shell=shell[0]):
                env = self.bound_env(ip="10.0.0.5", subnet="255.255.0.0")
                del env["router"]
                result = self.run_script(shell, "renew", **env)
                self.assertEqual(0, result.returncode, result.stderr)
                self.assertEqual(self.interface + " 10.0.0.5 255.255.0.0 192.168.77.1\n", self.read_lease())

    def test_deconfig_reports_no_lease(self):
        for shell in shells():
            with self.subTest(shell=shell[0]):
                self.run_script(shell, "bound", **self.bound_env())
                result = self.run_script(shell, "deconfig")
                self.assertEqual(0, result.returncode, result.stderr)
                self.assertEqual(self.interface + " 0.0.0.0 0.0.0.0\n", self.read_lease())
                self.assertEqual([], self.leftovers())

    def test_leasefail_and_nak_change_nothing(self):
        for shell in shells():
            for command in ("leasefail", "nak"):
                with self.subTest(shell=shell[0], command=command):
                    self.cleanup()
                    result = self.run_script(shell, command, message="no offer")
                    self.assertEqual(0, result.returncode, result.stderr)
                    self.assertFalse(os.path.exists(self.lease), "a file appeared without a lease")

                    self.run_script(shell, "bound", **self.bound_env())
                    before = os.stat(self.lease)
                    result = self.run_script(shell, command, message="no offer")
                    self.assertEqual(0, result.returncode, result.stderr)
                    self.assertEqual(self.interface + " 192.168.77.123 255.255.255.0 192.168.77.1\n192.168.77.1\n",
                                     self.read_lease())
                    self.assertEqual(before.st_ino, os.stat(self.lease).st_ino)

    def test_file_is_replaced_whole_never_rewritten_in_place(self):
        # A reader that opened the old file keeps seeing the old lease whole: the
        # new one arrives under a new inode by rename.
        for shell in shells():
            with self.subTest(shell=shell[0]):
                self.run_script(shell, "bound", **self.bound_env())
                old = self.lease + ".reader"
                os.link(self.lease, old)
                self.run_script(shell, "bound", **self.bound_env(ip="192.168.77.124"))
                with open(old) as f:
                    self.assertEqual(self.interface + " 192.168.77.123 255.255.255.0 192.168.77.1\n192.168.77.1\n", f.read())
                self.assertEqual(self.interface + " 192.168.77.124 255.255.255.0 192.168.77.1\n192.168.77.1\n", self.read_lease())
                self.assertNotEqual(os.stat(old).st_ino, os.stat(self.lease).st_ino)
                self.assertEqual([], self.leftovers())
                os.remove(old)

    def test_without_interface_writes_nothing(self):
        for argv, path in shells():
            with self.subTest(shell=argv):
                env = {"PATH": path}
                env.update(self.bound_env())
                before = glob.glob("/tmp/dhcp_.txt*") + glob.glob("/tmp/.dhcp_.txt*")
                result = subprocess.run(argv + [SCRIPT, "bound"], env=env, capture_output=True, timeout=10)
                self.assertNotEqual(0, result.returncode)
                self.assertEqual(before, glob.glob("/tmp/dhcp_.txt*") + glob.glob("/tmp/.dhcp_.txt*"))

    def test_interface_name_with_a_path_writes_nothing(self):
        for shell in shells():
            for name in ("../etc/x", "a/b", ".hidden"):
                with self.subTest(shell=shell[0], name=name):
                    env = dict(self.bound_env(), PATH=shell[1], interface=name)
                    result = subprocess.run(shell[0] + [SCRIPT, "bound"], env=env, capture_output=True, timeout=10)
                    self.assertNotEqual(0, result.returncode)

    def test_lease_file_is_private_to_root(self):
        for shell in shells():
            with self.subTest(shell=shell[0]):
                self.cleanup()
                result = self.run_script(shell, "bound", **self.bound_env())
                self.assertEqual(0, result.returncode, result.stderr)
                status = os.lstat(self.lease)
                self.assertTrue(stat.S_ISREG(status.st_mode))
                self.assertEqual(0o600, stat.S_IMODE(status.st_mode))
                self.assertEqual(os.geteuid(), status.st_uid)

    # --- What a local user can plant in /tmp -----------------------------------

    def assert_refused(self, shell, planted_kind):
        result = self.run_script(shell, "bound", **self.bound_env())
        self.assertNotEqual(0, result.returncode, "wrote over " + planted_kind)
        self.assertIn("is not a regular file", result.stderr)
        self.assertEqual([], self.leftovers())

    def test_link_at_the_lease_path_is_neither_followed_nor_replaced(self):
        for shell in shells():
            with self.subTest(shell=shell[0]):
                self.cleanup()
                victim = self.victim()
                os.symlink(victim, self.lease)
                self.assert_refused(shell, "a link")
                self.assertTrue(os.path.islink(self.lease))
                with open(victim) as f:
                    self.assertEqual("precious\n", f.read())

    def test_link_to_a_directory_at_the_lease_path_gets_nothing_moved_into_it(self):
        for shell in shells():
            with self.subTest(shell=shell[0]):
                self.cleanup()
                directory = self.lease + ".victim"
                os.mkdir(directory)
                os.symlink(directory, self.lease)
                self.assert_refused(shell, "a link to a directory")
                self.assertEqual([], os.listdir(directory))
                os.rmdir(directory)

    def test_directory_at_the_lease_path_gets_nothing_moved_into_it(self):
        for shell in shells():
            with self.subTest(shell=shell[0]):
                self.cleanup()
                os.mkdir(self.lease)
                self.assert_refused(shell, "a directory")
                self.assertEqual([], os.listdir(self.lease))
                os.rmdir(self.lease)

    def test_directory_made_at_the_lease_path_just_before_the_move_gets_nothing(self):
        # The worst moment: a directory (or a link to one) appears after the
        # script's check, as the file is moved. An mv that plants it first stands
        # in for the other user.
        for shell in shells():
            for kind in ("directory", "link to a directory"):
                with self.subTest(shell=shell[0], planted=kind):
                    self.cleanup()
                    directory = self.lease + ".victim"
                    os.mkdir(directory)
                    planting = tempfile.mkdtemp(prefix="tessel-planting-")
                    self.addCleanup(shutil.rmtree, planting, True)
                    plant = ('/bin/mkdir "%s"' % self.lease) if kind == "directory" else (
                        '/bin/ln -s "%s" "%s"' % (directory, self.lease))
                    with open(os.path.join(planting, "mv"), "w") as out:
                        out.write('#!/bin/sh\nPATH=%s\n%s\nexec mv "$@"\n' % (shell[1], plant))
                    os.chmod(os.path.join(planting, "mv"), 0o755)
                    result = self.run_script((shell[0], planting + ":" + shell[1]), "bound", **self.bound_env())
                    # Nothing lands in the directory, by any name.
                    self.assertEqual([], os.listdir(directory))
                    if kind == "directory":
                        self.assertNotEqual(0, result.returncode, "claimed success")
                        self.assertEqual([], os.listdir(self.lease))
                        os.rmdir(self.lease)
                    else:
                        # The rename replaces the link itself, never what it points at.
                        self.assertEqual(0, result.returncode, result.stderr)
                        self.assertFalse(os.path.islink(self.lease))
                        self.assertEqual(self.interface + " 192.168.77.123 255.255.255.0 192.168.77.1\n192.168.77.1\n",
                                         self.read_lease())
                    self.assertEqual([], [path for path in self.leftovers() if path != directory])
                    shutil.rmtree(directory)

    def test_fifo_at_the_lease_path_neither_blocks_nor_is_replaced(self):
        for shell in shells():
            with self.subTest(shell=shell[0]):
                self.cleanup()
                os.mkfifo(self.lease)
                self.assert_refused(shell, "a FIFO")
                self.assertTrue(stat.S_ISFIFO(os.lstat(self.lease).st_mode))

    def test_links_at_the_old_temporary_names_are_never_followed(self):
        # The script once wrote /tmp/.dhcp_<interface>.txt.$$ with ">". In a PID
        # namespace of its own the shell is process 1, so $$ is known and a link
        # can be planted at exactly that name (and at the names around it).
        need_namespaces(self)
        for shell in shells():
            with self.subTest(shell=shell[0]):
                self.cleanup()
                victim = self.victim()
                for pid in range(1, 8):
                    os.symlink(victim, "/tmp/.dhcp_%s.txt.%d" % (self.interface, pid))
                result = self.run_script(shell, "bound", prefix=[UNSHARE, "--pid", "--fork"], **self.bound_env())
                self.assertEqual(0, result.returncode, result.stderr)
                with open(victim) as f:
                    self.assertEqual("precious\n", f.read())
                self.assertEqual(self.interface + " 192.168.77.123 255.255.255.0 192.168.77.1\n192.168.77.1\n", self.read_lease())
                self.assertFalse(os.path.islink(self.lease))

    def test_full_tmp_leaves_the_lease_in_place_and_fails(self):
        # A tmpfs of 64 KiB over /tmp in a mount namespace, filled up: no write
        # of the lease can work, and the previous lease must stay as it was.
        need_namespaces(self)
        without_router = self.bound_env()
        del without_router["router"]
        runs = (("bound", self.bound_env()), ("bound", without_router), ("deconfig", {}))
        for shell in shells():
            for command, lease in runs:
                with self.subTest(shell=shell[0], command=command, router="router" in lease):
                    self.full_tmp_run(shell, command, lease)

    def full_tmp_run(self, shell, command, lease):
        argv, path = shell
        inner = ('mount -t tmpfs -o size=64k tmpfs /tmp || exit 90\n'
                 'printf "%s 10.1.1.1 255.0.0.0\\n" "$interface" >/tmp/dhcp_$interface.txt\n'
                 'dd if=/dev/zero of=/tmp/fill bs=4096 2>/dev/null\n'
                 'PATH=$SCRIPT_PATH "$@"; echo "rc=$?"\n'
                 'cat /tmp/dhcp_$interface.txt; ls -A /tmp\n')
        env = dict(lease, PATH=PATH, SCRIPT_PATH=path, interface=self.interface)
        result = subprocess.run(
            [UNSHARE, "--mount", "--propagation", "private", "/bin/sh", "-c", inner, "sh"] + argv + [SCRIPT, command],
            env=env, capture_output=True, text=True, timeout=20)
        lines = result.stdout.splitlines()
        self.assertIn("rc=", result.stdout, result.stderr)
        self.assertNotEqual("rc=0", lines[0], "the script claimed success on a full /tmp")
        self.assertEqual([self.interface + " 10.1.1.1 255.0.0.0", "dhcp_%s.txt" % self.interface, "fill"], lines[1:],
                         result.stderr)


if __name__ == "__main__":
    unittest.main(verbosity=2)
