"""The status as Prometheus metrics (--metrics-dir): the file the node exporter's textfile
collector reads, written with the status document, checked as Prometheus itself would
(promtool where it is installed, else python3-prometheus-client's parser); a directory
that is missing at first, a link planted at the file's name, and no file without the
option. Cycles are gated (Sandbox.use_config_pipe), so each check sees a pass that is over."""

import os
import shutil
import stat
import subprocess

import harness
from tesselkit.device import config_text

TWO_PORT_STATIC = config_text("eth0eth1", "frame", "static 10.0.0.2 255.255.255.0 10.0.0.1",
                              "static 10.1.0.2 255.255.255.0 0.0.0.0")
PHY_FILE = "/tmp/marvell-phy-0-port"
METRICS_DIR = "/run/metrics"
METRICS_FILE = METRICS_DIR + "/tessel_networkd.prom"


def check_metrics(test, text):
    """Fails `test` unless `text` is valid in the Prometheus text format: promtool's
    check (and lint) where promtool is on PATH, else the client library's parser with
    each family's HELP and TYPE; skips where neither is installed."""
    promtool = shutil.which("promtool")
    if promtool:
        result = subprocess.run([promtool, "check", "metrics"], input=text, capture_output=True, text=True)
        test.assertEqual((result.returncode, result.stdout + result.stderr), (0, ""), text)
        return
    try:
        from prometheus_client.parser import text_string_to_metric_families
    except ImportError:
        test.skipTest("neither promtool (Debian's prometheus) nor python3-prometheus-client is installed")
    families = list(text_string_to_metric_families(text))
    test.assertTrue(families)
    for family in families:
        test.assertTrue(family.name.startswith("tessel_networkd_"), family.name)
        test.assertTrue(family.documentation, family.name)
        test.assertIn(family.type, ("gauge", "counter"), family.name)
    # The parser takes a family announced twice; the format does not.
    helps = [line.split()[2] for line in text.splitlines() if line.startswith("# HELP ")]
    test.assertEqual(len(helps), len(set(helps)), helps)


def samples(text):
    """The sample lines of `text`, as {name with labels: value text}."""
    return dict(line.rsplit(" ", 1) for line in text.splitlines() if line and not line.startswith("#"))


class MetricsTest(harness.DaemonTestCase):
    def setUp(self):
        super().setUp()
        self.sandbox.use_config_pipe()

    def start(self, *extra):
        daemon = self.start_daemon(args=["--config", self.sandbox.config_path, "--phy-file", PHY_FILE] + list(extra),
                                   interfaces=["eth0"], up=["eth0"])
        daemon.wait_for_config_read()
        return daemon

    def metrics_path(self):
        return self.sandbox.path("run", "metrics", "tessel_networkd.prom")

    def read_metrics(self):
        with open(self.metrics_path()) as metrics:
            return metrics.read()

    def test_a_missing_directory_is_reported_once_and_the_file_comes_once_it_is_there(self):
        daemon = self.start("--metrics-dir", METRICS_DIR)
        daemon.run_cycle(TWO_PORT_STATIC, 3)
        warnings = [(entry.level, entry.message) for entry in daemon.entries() if "etrics file" in entry.message]
        self.assertEqual(warnings, [("WARN", "Unable to write metrics file " + METRICS_FILE + ": " + METRICS_DIR
                                     + " does not exist")])
        # The document and the work go on as without the option.
        self.assertEqual(self.sandbox.status()["configuration"]["usable"], True)
        self.assertIn("ip addr add 10.0.0.2/255.255.255.0 dev veth1", self.sandbox.commands())

        os.mkdir(self.sandbox.path("run", "metrics"), 0o755)
        document = os.stat(self.sandbox.status_path())
        daemon.run_cycle(TWO_PORT_STATIC)
        self.assertIn("Metrics file " + METRICS_FILE + " written again", daemon.messages())
        # Nothing changed: the document stays as it was.
        self.assertEqual(os.stat(self.sandbox.status_path()).st_mtime_ns, document.st_mtime_ns)
        self.assertEqual(stat.S_IMODE(os.stat(self.metrics_path()).st_mode), 0o644)
        text = self.read_metrics()
        check_metrics(self, text)
        found = samples(text)
        self.assertEqual({name: found[name] for name in (
            'tessel_networkd_state{state="starting"}', 'tessel_networkd_state{state="healthy"}',
            'tessel_networkd_state{state="degraded"}', 'tessel_networkd_isolation{state="in_force"}',
            'tessel_networkd_isolation{state="not_in_force"}', 'tessel_networkd_bridge_mode{mode="eth0eth1"}',
            'tessel_networkd_eth0_link_up', 'tessel_networkd_eth0_recoveries_total',
            'tessel_networkd_work_failures{work="bridge"}', 'tessel_networkd_interface_address{interface="veth1"}',
            'tessel_networkd_configuration_usable')},
            {'tessel_networkd_state{state="starting"}': "0", 'tessel_networkd_state{state="healthy"}': "1",
             'tessel_networkd_state{state="degraded"}': "0", 'tessel_networkd_isolation{state="in_force"}': "1",
             'tessel_networkd_isolation{state="not_in_force"}': "0",
             'tessel_networkd_bridge_mode{mode="eth0eth1"}': "1", 'tessel_networkd_eth0_link_up': "1",
             'tessel_networkd_eth0_recoveries_total': "0", 'tessel_networkd_work_failures{work="bridge"}': "0",
             'tessel_networkd_interface_address{interface="veth1"}': "1",
             'tessel_networkd_configuration_usable': "1"})
        self.assertNotIn('tessel_networkd_lease_timestamp_seconds{interface="veth1"}', found)

        # Passes that change nothing leave it alone, as the document.
        before = os.stat(self.metrics_path())
        daemon.run_cycle(TWO_PORT_STATIC, 2)
        after = os.stat(self.metrics_path())
        self.assertEqual((before.st_ino, before.st_mtime_ns), (after.st_ino, after.st_mtime_ns))

    def test_a_link_planted_at_the_files_name_is_replaced_never_followed(self):
        os.mkdir(self.sandbox.path("run", "metrics"), 0o755)
        target = self.sandbox.path("precious")
        with open(target, "w") as out:
            out.write("keep me\n")
        os.symlink(target, self.metrics_path())
        os.symlink(target, self.sandbox.path("run", "metrics", ".tessel_networkd.prom.new"))
        daemon = self.start("--metrics-dir", METRICS_DIR)
        daemon.run_cycle(TWO_PORT_STATIC)
        with open(target) as kept:
            self.assertEqual(kept.read(), "keep me\n")
        self.assertTrue(stat.S_ISREG(os.lstat(self.metrics_path()).st_mode))
        self.assertEqual(sorted(os.listdir(self.sandbox.path("run", "metrics"))), ["tessel_networkd.prom"])
        check_metrics(self, self.read_metrics())
        self.assertFalse([entry for entry in daemon.entries() if "etrics file" in entry.message])

    def test_a_linked_or_open_directory_is_refused(self):
        os.mkdir(self.sandbox.path("elsewhere"), 0o755)
        os.symlink(self.sandbox.path("elsewhere"), self.sandbox.path("run", "metrics"))
        daemon = self.start("--metrics-dir", METRICS_DIR)
        daemon.run_cycle(TWO_PORT_STATIC, 2)
        self.assertEqual(os.listdir(self.sandbox.path("elsewhere")), [])
        self.assertEqual([entry.message for entry in daemon.entries() if "etrics file" in entry.message],
                         ["Unable to write metrics file " + METRICS_FILE + ": " + METRICS_DIR + " is not a directory"])

    def test_without_the_option_no_file_is_written(self):
        daemon = self.start()
        daemon.run_cycle(TWO_PORT_STATIC, 2)
        made = [os.path.join(top, name) for top, _, names in os.walk(self.sandbox.path("run")) for name in names]
        self.assertFalse([path for path in made if "prom" in os.path.basename(path)], made)
        self.assertEqual(sorted(os.listdir(self.sandbox.status_dir())), ["lock", "status.json"])
        self.assertFalse([entry for entry in daemon.entries() if "etrics" in entry.message])


if __name__ == "__main__":
    harness.main()
