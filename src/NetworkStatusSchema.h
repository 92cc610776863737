// What the daemon and the operator command (tessel-networkctl) agree on about
// the status document: its schema number and where it lives. Includes nothing:
// the operator command shares no other code with the daemon but the
// configuration check.
#pragma once

// The schema number the document carries; raised when a field changes meaning or goes.
constexpr int kStatusSchema = 1;

// The isolation is shown in force only when a look found it whole this many
// seconds ago at most: its period (10 s) and a margin for a slow pass.
constexpr long long kIsolationVerifiedWithinSeconds = 25;

// Where the document lives unless the command line says otherwise, and its name there.
constexpr const char* kStatusDirectory = "/run/tessel-networkd";
constexpr const char* kStatusFileName = "status.json";

// The status as Prometheus metrics, in the directory --metrics-dir names (none
// by default): the name the node exporter's textfile collector reads.
constexpr const char* kMetricsFileName = "tessel_networkd.prom";
