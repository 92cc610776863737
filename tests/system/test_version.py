"""--version of the daemon, the configuration checker and the operator command:
the project's version and the source revision each was built from."""

import os
import re
import subprocess
import unittest

import harness
from tesselkit.logs import parse_log_line

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def project_version():
    with open(os.path.join(SOURCE, "CMakeLists.txt")) as cmake:
        return re.search(r"project\(tessel-networkd VERSION (\S+)", cmake.read()).group(1)


def source_revision():
    """The commit the tree is at, or None outside a git checkout."""
    found = subprocess.run(["git", "-C", SOURCE, "rev-parse", "--short=12", "HEAD"], capture_output=True, text=True)
    return found.stdout.strip() if found.returncode == 0 else None


class VersionTest(unittest.TestCase):
    def run_program(self, path, *args):
        return subprocess.run(harness.run_prefix() + [path] + list(args), stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=harness.TIMEOUT)

    def assert_version_line(self, line, program):
        match = re.fullmatch(r"(\S+) (\S+) \(revision (\S+)\)", line)
        self.assertIsNotNone(match, line)
        self.assertEqual(match.group(1, 2), (program, project_version()))
        revision = source_revision()
        if revision is None:
            self.assertEqual(match.group(3), "unknown")
        else:
            # The build's tree, with "-modified" when it had changes not committed.
            self.assertRegex(match.group(3), r"^%s(-modified)?$" % revision)

    def test_the_daemon_prints_its_version_and_revision_and_runs_nothing(self):
        for option in ("--version", "-V"):
            with self.subTest(option=option):
                result = self.run_program(harness.DAEMON_PATH, option)
                self.assertEqual((result.returncode, result.stderr), (0, ""), result.stdout)
                lines = result.stdout.splitlines()
                self.assertEqual(len(lines), 2, result.stdout)
                # The start line comes before the command line is read, as for --help.
                self.assertEqual(parse_log_line(lines[0]).message, "tessel-networkd starting")
                self.assert_version_line(lines[1], "tessel-networkd")

    def test_the_checker_and_the_operator_command_print_theirs(self):
        for path, program in ((os.environ.get("TESSEL_NETCHECK"), "tessel-netcheck"),
                              (harness.CTL_PATH, "tessel-networkctl")):
            with self.subTest(program=program):
                self.assertIsNotNone(path, "the program's path is not set (CTest sets it)")
                result = self.run_program(path, "--version")
                self.assertEqual((result.returncode, result.stderr), (0, ""), result.stdout)
                self.assertEqual(len(result.stdout.splitlines()), 1, result.stdout)
                self.assert_version_line(result.stdout.rstrip("\n"), program)


if __name__ == "__main__":
    unittest.main()
