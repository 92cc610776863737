// The status in the Prometheus text exposition format, for the node exporter's
// textfile collector: the same snapshot the document is built from, another
// text of it (docs/STATUS.md lists the metrics). Written beside the document,
// never more often, only where the operator names a directory (--metrics-dir).
#pragma once

#include <string>

struct STATUS_DAEMON;
struct STATUS_SNAPSHOT;

// The device's state as `tessel-networkctl status` judges it from the
// document, but for "not running", which no file written by the daemon can say.
enum STATUS_STATE : unsigned char {
    STATUS_STATE_STARTING,  // the first read of the configuration has not ended
    STATUS_STATE_HEALTHY,
    STATUS_STATE_DEGRADED,  // a cause the operator command would name holds
};

STATUS_STATE StatusState(const STATUS_SNAPSHOT& snapshot);

// A label's value as the format quotes it: backslash, double quote and line
// feed escaped.
std::string MetricsLabelValue(const std::string& text);

// The file's text: every metric with its HELP and TYPE lines.
std::string StatusMetrics(const STATUS_DAEMON& daemon, const STATUS_SNAPSHOT& snapshot);
