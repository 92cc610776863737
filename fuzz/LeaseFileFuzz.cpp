// Lease files as the DHCP client's script would leave them, read by
// CheckForNewDhcpAddress for an interface name of this process alone, with
// every command recorded instead of run. Each file is read from no lease and
// from a lease in force, then once more as a renewal of what the first read
// took up, which must change nothing.
#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/FuzzCheck.h"
#include "fuzz/FuzzSupport.h"
#include "src/NetworkDhcp.h"
#include "src/NetworkShell.h"

namespace {

// Collects the commands the code would run; nothing is run.
class RecordingRunner {
public:
    RecordingRunner()
        : m_previous(SetCommandRunner([this](const std::string& command, std::string* /*output*/) {
              m_commands.push_back(command);
              return COMMAND_OUTCOME{};
          })) {}
    ~RecordingRunner() { SetCommandRunner(std::move(m_previous)); }
    RecordingRunner(const RecordingRunner&) = delete;
    RecordingRunner& operator=(const RecordingRunner&) = delete;

    const std::vector<std::string>& Commands() const { return m_commands; }

private:
    std::vector<std::string> m_commands;
    CommandRunner m_previous;
};

std::string& Interface() {
    static std::string name;
    return name;
}

std::string LeasePath() { return DhcpLeasePath(Interface()); }

void RemoveLeaseFile() { unlink(LeasePath().c_str()); }

std::string Dotted(in_addr address) { return inet_ntoa(address); }

void WriteLeaseFile(const uint8_t* data, size_t size) {
    int fd = open(LeasePath().c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    FUZZ_CHECK(fd >= 0);
    FUZZ_CHECK(write(fd, data, size) == static_cast<ssize_t>(size));
    close(fd);
}

// Reads the file from `state` and checks the commands against what the state became.
DHCP_STATE ReadFrom(const uint8_t* data, size_t size, DHCP_STATE state) {
    const DHCP_STATE before = state;
    const std::string name = Interface();
    WriteLeaseFile(data, size);
    std::vector<std::string> commands;
    {
        RecordingRunner runner;
        CheckForNewDhcpAddress(name, 10, state);
        commands = runner.Commands();
    }
    // Every file that could be read is deleted, malformed or not.
    FUZZ_CHECK(access(LeasePath().c_str(), F_OK) != 0);
    RemoveLeaseFile();

    std::vector<std::string> expected;
    if (state != before) {
        expected = {"ip route flush dev " + name, "ip addr flush dev " + name};
        if (state.m_bLeaseValid) {
            expected.push_back("ip addr add " + Dotted(state.m_ipAddress) + "/" + Dotted(state.m_subnetMask) + " dev " +
                               name);
            if (state.m_gateway.s_addr != 0) {
                expected.push_back("ip route add default via " + Dotted(state.m_gateway) + " dev " + name +
                                   " metric 10");
            }
        }
    }
    FUZZ_CHECK(commands == expected);
    if (state.m_bLeaseValid) {
        // Address and mask both 0.0.0.0 state that there is no lease.
        FUZZ_CHECK(state.m_ipAddress.s_addr != 0 || state.m_subnetMask.s_addr != 0);
    } else {
        FUZZ_CHECK(state.m_gateway.s_addr == 0);  // a gateway is read only for a lease
    }
    return state;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    SilenceLogging();
    // Short enough to be an interface name, and no other process's lease file.
    Interface() = "fz" + std::to_string(getpid());
    atexit(RemoveLeaseFile);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    DHCP_STATE none{};
    DHCP_STATE taken = ReadFrom(data, size, none);

    DHCP_STATE inForce{};
    inForce.m_bLeaseValid = true;
    inForce.m_ipAddress.s_addr = htonl(0x0a000005);   // 10.0.0.5
    inForce.m_subnetMask.s_addr = htonl(0xffffff00);  // 255.255.255.0
    inForce.m_gateway.s_addr = htonl(0x0a000001);     // 10.0.0.1
    // The state a file leads to does not depend on the state before it.
    FUZZ_CHECK(ReadFrom(data, size, inForce) == taken);

    // A renewal: the same file again changes nothing and runs nothing but the removal.
    FUZZ_CHECK(ReadFrom(data, size, taken) == taken);
    return 0;
}
