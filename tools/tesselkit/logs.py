"""The daemon's log lines: "YYYY-MM-DD HH:MM:SS.mmm LEVEL FILE:LINE FUNCTION: MESSAGE"."""
import re
from collections import namedtuple

LogEntry = namedtuple("LogEntry", "stamp level file line function message")

# The levels by severity, 0 to 7.
LEVELS = ("EMERG", "ALERT", "CRIT", "ERROR", "WARN", "NOTICE", "INFO", "DEBUG")

LOG_LINE = re.compile(
    r"^(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3}) (%s) " % "|".join(LEVELS)
    + r"([^ :]+):(\d+) ([A-Za-z_][A-Za-z0-9_]*): (.*)$"
)

# What starts each line when standard output is the journal's stream.
PRIORITY_PREFIX = re.compile(r"^<(\d+)>")


def parse_log_line(line):
    """A LogEntry for one line of the daemon's log, or None when it is not one."""
    match = LOG_LINE.match(line)
    if match is None:
        return None
    stamp, level, file, number, function, message = match.groups()
    return LogEntry(stamp, level, file, int(number), function, message)


def split_priority(line):
    """(N, the rest) for a line that starts with the journal's "<N>", else (None, line)."""
    match = PRIORITY_PREFIX.match(line)
    if match is None:
        return None, line
    return int(match.group(1)), line[match.end():]


def entries(text):
    """The log entries in a text; other lines (a tool's own output in the same file) are left out."""
    return [entry for entry in map(parse_log_line, text.splitlines()) if entry is not None]
