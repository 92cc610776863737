"""Timelines written out by hand once, as files in tests/fixtures/, for the tests
of both languages: "$ command" lines, log entries ("LEVEL Function: message") and
pauses ("pause N ms"); "#" starts a comment line. CTest names the folder in
TESSEL_FIXTURES."""
import os


def fixture(name, **values):
    """The timeline in the fixture `name`, each "@KEY@" replaced by values[KEY]."""
    folder = os.environ.get("TESSEL_FIXTURES")
    if not folder:
        raise RuntimeError("cannot read fixture %s: TESSEL_FIXTURES is not set (CTest sets it)" % name)
    timeline = []
    with open(os.path.join(folder, name)) as text:
        for line in text.read().splitlines():
            if not line or line.startswith("#"):
                continue
            for key, value in values.items():
                line = line.replace("@%s@" % key, value)
            timeline.append(line)
    return timeline


def commands(timeline):
    """The commands of a timeline, as a recording stand-in sees them."""
    return [line[2:] for line in timeline if line.startswith("$ ")]
