"""Timelines written out by hand once, as files in tests/fixtures/, for the tests
of both languages: "$ command" lines, log entries ("LEVEL Function: message") and
pauses ("pause N ms"); "> line" lines are the lines of the command before them
that follow its first (a here-document's, as a shell prompts for them), and
are no commands of their own; "#" starts a comment line. CTest names the folder in
TESSEL_FIXTURES. The isolation's rules and their counts are named here, from
the fixtures, for the tests of every kind."""
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


# Redirections of a command's output, which the shell applies and a stand-in never sees.
REDIRECTIONS = (" > /dev/null 2>&1", " 2>/dev/null")


def without_redirections(command):
    for redirection in REDIRECTIONS:
        if command.endswith(redirection):
            return command[:-len(redirection)]
    return command


def commands(timeline):
    """The commands of a timeline, as a recording stand-in sees them (without
    the redirections of their output)."""
    return [without_redirections(line[2:]) for line in timeline if line.startswith("$ ")]


# The kinds of the two-port isolation's filter rules, each with its tool and the
# fixture whose commands add them in a two-port build.
RULE_KINDS = (("ARP", "arptables", "isolation-rules.timeline"), ("IP", "iptables", "isolation-rules.timeline"),
              ("link layer", "ebtables", "isolation-complete.timeline"))


def isolation_rules():
    """The two-port isolation's filter rules by kind ("ARP", "IP", "link
    layer"), in the order the build appends them: the fixtures' "TOOL -A ..."
    commands."""
    return {kind: [command for command in commands(fixture(name)) if command.startswith(tool + " -A ")]
            for kind, tool, name in RULE_KINDS}


def isolation_rule_counts():
    """How many rules of each kind the two-port isolation puts in force:
    {"ARP": ..., "IP": ..., "link layer": ...}."""
    return {kind: len(rules) for kind, rules in isolation_rules().items()}
