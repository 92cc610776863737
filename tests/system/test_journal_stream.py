"""Standard output as the journal's stream: where $JOURNAL_STREAM names the file
the daemon's standard output is open on, each entry starts with the "<N>" prefix
the journal takes as its priority (N its severity), followed by the line exactly
as anywhere else; where it names another file, the lines stay as they are."""

import os
import signal

import harness
from tesselkit.logs import LEVELS, parse_log_line, split_priority

class JournalStreamTest(harness.DaemonTestCase):
    def run_with_stream_of(self, name):
        """Runs the daemon with ip failing (ERROR and WARN entries) and JOURNAL_STREAM
        naming the sandbox file `name`, to its stop after two retries of the start-up
        commands; returns its output lines."""
        # The first daemon's standard output, made now so that its inode is known.
        open(self.sandbox.path("output.log"), "wb").close()
        named = self.sandbox.path(name)
        open(named, "ab").close()
        stat = os.stat(named)
        self.sandbox.set_status("ip", 2)
        daemon = self.start_daemon(env={"JOURNAL_STREAM": "%d:%d" % (stat.st_dev, stat.st_ino)})
        harness.wait_until(lambda: "Retrying start-up commands in 2 s" in daemon.output(),
                           lambda: "the second start-up retry; output so far:\n" + daemon.output())
        daemon.send(signal.SIGTERM)
        self.assertEqual(daemon.wait_exit(), 0, daemon.output())
        return daemon.lines()

    def test_each_entry_carries_its_severity_to_the_journal(self):
        lines = self.run_with_stream_of("output.log")
        seen = set()
        for line in lines:
            priority, rest = split_priority(line)
            entry = parse_log_line(rest)
            self.assertIsNotNone(priority, line)
            self.assertIsNotNone(entry, line)
            self.assertEqual(LEVELS[priority], entry.level, line)
            seen.add(entry.level)
        # Warnings and errors are told apart from the rest.
        self.assertTrue({"ERROR", "WARN", "INFO"} <= seen, lines)
        priority, rest = split_priority(lines[-1])
        self.assertEqual((priority, parse_log_line(rest).message), (6, "tessel-networkd exiting with code of 0"))

    def test_lines_stay_as_they_are_when_the_stream_is_another_file(self):
        lines = self.run_with_stream_of("other.log")
        levels = set()
        for line in lines:
            self.assertEqual(split_priority(line), (None, line))
            entry = parse_log_line(line)
            self.assertIsNotNone(entry, line)
            levels.add(entry.level)
        self.assertTrue({"ERROR", "WARN", "INFO"} <= levels, lines)


if __name__ == "__main__":
    harness.main()
