// The status document: what the daemon has configured, what is in force and
// what went wrong, kept as JSON in /run/tessel-networkd/status.json for the
// operator command (tessel-networkctl) and dashboards. docs/STATUS.md is its schema.
// Its parts: the snapshot (src/NetworkStatusSnapshot.h), the text
// (src/NetworkStatusJson.h), the file (src/NetworkStatusFile.h), and here the
// writer that puts them together after each pass, only when something changed.
#pragma once

#include <string>

#include "src/NetworkStatusJson.h"
#include "src/NetworkStatusSchema.h"
#include "src/NetworkStatusSnapshot.h"
#include "util/UniqueFd.h"

struct CYCLE_STATE;

// The writer's state, owned by main for the whole run.
struct STATUS_WRITER {
    std::string m_directory = kStatusDirectory;
    STATUS_DAEMON m_daemon;
    STATUS_SNAPSHOT m_written;      // what the document on disk shows
    STATUS_SNAPSHOT m_current;      // taken after the last pass
    bool m_bWritten = false;        // the document on disk is the one of m_written
    bool m_bFailureLogged = false;  // a failed write was logged and none has worked since
    std::string m_eth1 = "eth1";    // the link whose state the document shows as eth1's
    // The socket eth1's flags are asked through, opened at the first pass that
    // can and kept: one a pass would cost the idle pass an eighth of its time.
    Util::UniqueFd m_linkQuery;
    // eth1's link as last read, and whether it is to be read at the next
    // update: main says so when the kernel reported an owned link (or has no
    // reports to give); a read without the socket is tried again.
    STATUS_LINK m_eEth1Link = STATUS_LINK_UNKNOWN;
    bool m_bEth1LinkDue = true;
    // The same status as Prometheus metrics, written with the document; empty: not written.
    std::string m_metricsDirectory;
    bool m_bMetricsDue = false;            // the metrics file is behind the snapshot last taken
    bool m_bMetricsFailureLogged = false;  // as m_bFailureLogged, for the metrics file
};

// Before the first pass: the daemon's version, pid and start time, and the path
// of its configuration file.
void StartStatus(STATUS_WRITER& writer, const std::string& directory, const std::string& configPath);

// After each pass: reads eth1's link when it is due (one ioctl, on a socket
// kept for the run, nothing logged), and writes the document when what it
// shows changed since the last write, or the last write failed. A failure is logged once (WARN) and tried
// again after the next pass; it never stops the cycle. With a metrics
// directory, the metrics file is written whenever the document is, from the
// same snapshot, and on its own only while its last write failed (logged
// once too); neither write waits for or disturbs the other.
void UpdateStatus(STATUS_WRITER& writer, const CYCLE_STATE& state);
