// "tessel-networkctl plan FILE": what the daemon would do going from the shape
// it runs now to FILE's, from its own cycle run in-process with every contact
// with the system replaced by a dry run.
#pragma once

#include <string>
#include <vector>

// A plan's two ends. `m_fromPath` empty: from nothing, as the daemon's first
// start; else the configuration the running daemon reads.
struct PLAN_ENDS {
    std::string m_fromPath;
    std::string m_toPath;
};

// What the daemon's passes produce from the first one that reads `m_toPath`:
// the commands ("$ command", a here-document's lines after its first as "> "
// lines), the log lines ("LEVEL message") and the pauses ("pause N ms"), in
// order; what it took to reach `m_fromPath`'s shape is left out.
struct PLAN {
    // Until the passes settle (the start-up's too, from nothing).
    std::vector<std::string> m_lines;
    // What each pass does once they have (eth0 put back into br0, as every
    // pass does while its link is up).
    std::vector<std::string> m_everyPass;
    // FILE asks for the shape running now: its passes do only what the
    // running shape's steady pass did.
    bool m_bNothingToDo = false;
};

// Runs the daemon's start-up and passes in-process against a dry run: it
// runs nothing, signals nothing and writes nothing outside a private
// directory of its own, which it removes.
PLAN MakePlan(const PLAN_ENDS& ends);

// The lines "plan" prints: what it planned from and to, then the plan (or
// that there is nothing to do).
std::vector<std::string> PlanShown(const PLAN& plan, const std::string& from, const std::string& to);

// The plan's lines as printed: each within `width` columns, a longer one
// wrapped at blanks with its continuation indented.
std::string PlanText(const std::vector<std::string>& lines, size_t width = 80);

// What the command line asked: FILE, and where the running shape is read
// (the status document's directory; `m_fromPath` set: that configuration, as
// if a daemon ran it).
struct PLAN_REQUEST {
    std::string m_file;
    std::string m_statusDirectory;
    std::string m_fromPath;
};

// Checks FILE as "check" does (its messages printed when it is not usable),
// then prints one line saying what it planned from and to, and the plan.
// Returns the exit status: 0 printed (also "nothing to do"), 1 FILE not
// usable, 2 FILE (or the configuration planned from) cannot be read.
int PlanConfig(const PLAN_REQUEST& request);
