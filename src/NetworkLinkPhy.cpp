#include "src/NetworkLinkPhy.h"

#include <fcntl.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "logging/Logging.h"
#include "src/NetworkConfig.h"
#include "util/UniqueFd.h"

namespace {

LinkStateReader& ActiveLinkStateReader() {
    static LinkStateReader reader;
    return reader;
}

}  // namespace

LinkStateReader SetLinkStateReader(LinkStateReader reader) {
    return std::exchange(ActiveLinkStateReader(), std::move(reader));
}

int GenericInterfaceLinkIsUp(const std::string& name, bool& up) {
    up = false;
    if (const LinkStateReader& reader = ActiveLinkStateReader()) return reader(name, up);

    struct ifreq request;
    memset(&request, 0, sizeof request);
    // Names are shorter than the field; the last byte stays the terminator.
    strncpy(request.ifr_name, name.c_str(), sizeof request.ifr_name - 1);

    // Closed whichever way the query ends.
    const Util::UniqueFd querySocket(socket(AF_INET, SOCK_DGRAM, 0));
    if (!querySocket.IsOpen()) {
        LOG_ENTRY(LOGGING_SEVERITY_ERROR, false, "Unable to query link status for " + name + " cannot open socket");
        return -1;
    }
    if (ioctl(querySocket.Get(), SIOCGIFFLAGS, &request) != 0) {
        LOG_ENTRY(LOGGING_SEVERITY_ERROR, false, "Unable to query link status for " + name + " ioctl failed");
        return -1;
    }

    // Up without carrier, or running while administratively down, is down.
    const short wanted = IFF_UP | IFF_RUNNING;
    up = (request.ifr_flags & wanted) == wanted;
    return 0;
}

namespace {

// A failure of the write, for the PHY work's record: no process ran, the
// error says why.
void NoteWriteFailure(WORK_FAILURE* failure, const std::string& what, int error) {
    WORK_FAILURE& noted = FailureOrScratch(failure);
    noted.m_command = what;
    noted.m_outcome = COMMAND_OUTCOME{};
    noted.m_outcome.m_bStarted = false;
    noted.m_outcome.m_nError = error;
}

}  // namespace

bool SetEthernetPhyMode(const std::string& path, PHY_MODE mode, WORK_FAILURE* failure) {
    // A descriptor, opened as fopen(path, "w") would (created or emptied), and
    // no C++ file stream: the daemon then needs none of the C++ runtime's
    // stream and locale machinery, which made up a third of the runtime pages
    // it kept resident.
    const Util::UniqueFd port(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (!port.IsOpen()) {
        const int error = errno;
        // The file comes from a patch to the PHY driver; without it there is
        // nothing to set. Sent to the system log as well so it gets noticed.
        const std::string message = "Unable to open " + path + " patch is required";
        LOG_ENTRY(LOGGING_SEVERITY_ERROR, true, message);
        NoteWriteFailure(failure, message, error);
        return false;
    }

    // The driver takes its PHY type number, not the enum's value. Logged first
    // so the choice is on record even if the write fails; a failure on close
    // is not reported.
    char type = '0';
    if (mode == PHY_MODE_SGMII) {
        LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "Using ETH PHY type 4, RGMII to SGMII");
        type = '4';
    } else {
        LOG_ENTRY(LOGGING_SEVERITY_INFO, false, "Using ETH PHY type 0, RGMII to copper");
    }
    const ssize_t written = write(port.Get(), &type, 1);
    if (written != 1) {
        // Nothing written without an error is taken as an I/O error.
        const int error = written < 0 ? errno : EIO;
        const std::string message = "Unable to write the PHY type to " + path;
        LOG_ENTRY(LOGGING_SEVERITY_ERROR, false, message + ": " + strerror(error));
        NoteWriteFailure(failure, message, error);
        return false;
    }
    return true;
}
