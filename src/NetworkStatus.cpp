// The status document after each pass: a snapshot of the cycle's state, and
// the JSON text written, in one step, only when the snapshot changed.
#include "src/NetworkStatus.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "logging/Logging.h"
#include "src/NetworkCycle.h"
#include "src/NetworkStatusFile.h"
#include "src/NetworkStatusJson.h"
#include "src/NetworkStatusMetrics.h"
#include "src/NetworkStatusSchema.h"
#include "src/NetworkStatusSnapshot.h"
#include "util/Format.h"
#include "util/UniqueFd.h"
#include "util/Version.h"

namespace {

// A link's flags as the document shows them; quiet, as a failed read only
// shows as "not known".
STATUS_LINK ReadLink(Util::UniqueFd& querySocket, const std::string& name) {
    ifreq request{};
    if (name.size() >= sizeof request.ifr_name) return STATUS_LINK_UNKNOWN;
    name.copy(request.ifr_name, name.size());
    if (!querySocket.IsOpen()) querySocket = Util::UniqueFd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!querySocket.IsOpen() || ioctl(querySocket.Get(), SIOCGIFFLAGS, &request) != 0) return STATUS_LINK_UNKNOWN;
    // Up without carrier is down, as for eth0.
    const int wanted = IFF_UP | IFF_RUNNING;
    return (request.ifr_flags & wanted) == wanted ? STATUS_LINK_UP : STATUS_LINK_DOWN;
}

}  // namespace

void StartStatus(STATUS_WRITER& writer, const std::string& directory, const std::string& configPath) {
    writer.m_directory = directory;
    writer.m_daemon.m_version = Util::Version();
    writer.m_daemon.m_pid = getpid();
    writer.m_daemon.m_startedAt = Util::RealTimeNow();
    writer.m_daemon.m_configPath = configPath;
    writer.m_bWritten = false;
    writer.m_bFailureLogged = false;
    writer.m_bMetricsDue = false;
    writer.m_bMetricsFailureLogged = false;
}

namespace {

// The metrics file from the snapshot last taken; quiet while it keeps failing.
void UpdateMetrics(STATUS_WRITER& writer) {
    std::string error;
    const std::string path = writer.m_metricsDirectory + "/" + kMetricsFileName;
    if (!WriteMetricsFile(writer.m_metricsDirectory, StatusMetrics(writer.m_daemon, writer.m_current), error)) {
        if (!writer.m_bMetricsFailureLogged) {
            LOG_ENTRY(LOGGING_SEVERITY_WARN, false, "Unable to write metrics file " + path + ": " + error);
            writer.m_bMetricsFailureLogged = true;
        }
        return;
    }
    if (writer.m_bMetricsFailureLogged) {
        LOG_ENTRY(LOGGING_SEVERITY_NOTICE, false, "Metrics file " + path + " written again");
        writer.m_bMetricsFailureLogged = false;
    }
    writer.m_bMetricsDue = false;
}

// Only with a metrics directory, and only when the document was due or the
// last metrics write failed.
void UpdateMetricsIfDue(STATUS_WRITER& writer) {
    if (writer.m_bMetricsDue && !writer.m_metricsDirectory.empty()) UpdateMetrics(writer);
}

}  // namespace

void UpdateStatus(STATUS_WRITER& writer, const CYCLE_STATE& state) {
    TakeStatusSnapshot(state, writer.m_current);
    if (writer.m_bEth1LinkDue) {
        writer.m_eEth1Link = ReadLink(writer.m_linkQuery, writer.m_eth1);
        writer.m_bEth1LinkDue = !writer.m_linkQuery.IsOpen();
    }
    writer.m_current.m_eEth1Link = writer.m_eEth1Link;
    if (writer.m_bWritten && writer.m_current == writer.m_written) return UpdateMetricsIfDue(writer);
    // The metrics file follows the document: written now, whatever becomes of the document.
    writer.m_bMetricsDue = true;
    std::string error;
    const std::string path = writer.m_directory + "/" + kStatusFileName;
    if (!WriteStatusFile(writer.m_directory, StatusJson(writer.m_daemon, writer.m_current), error)) {
        // Once until a write works again: a read-only or full /run would otherwise fill the log.
        if (!writer.m_bFailureLogged) {
            LOG_ENTRY(LOGGING_SEVERITY_WARN, false, "Unable to write status file " + path + ": " + error);
            writer.m_bFailureLogged = true;
        }
        writer.m_bWritten = false;
        return UpdateMetricsIfDue(writer);
    }
    if (writer.m_bFailureLogged) {
        LOG_ENTRY(LOGGING_SEVERITY_NOTICE, false, "Status file " + path + " written again");
        writer.m_bFailureLogged = false;
    }
    writer.m_written = writer.m_current;
    writer.m_bWritten = true;
    UpdateMetricsIfDue(writer);
}
