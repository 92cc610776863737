// The kernel's side of the outside-change tests: the shape a whole two-port
// device has, a stand-in reader that gives a shape the test sets, and the
// recorded rtnetlink notifications of tests/fixtures/kernel-*.hex.
#pragma once

#include <arpa/inet.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "src/NetworkInternalNames.h"
#include "src/NetworkShape.h"
#include "tests/support/ExpectedTimelines.h"
#include "tests/support/Files.h"

inline in_addr Address(const char* dotted) {
    in_addr address{};
    inet_pton(AF_INET, dotted, &address);
    return address;
}

// What the kernel holds after the two-port build and the addressing of
// "veth1 static 192.168.1.2 255.255.255.0 192.168.1.1" and
// "veth3 static 192.168.100.1 255.255.255.0 0.0.0.0", veth1 with the test's
// command-line MAC. Indexes: br0 1, eth0 2, eth1 3, veth0 4, veth1 5, veth2 6, veth3 7.
inline KERNEL_SHAPE WholeTwoPortShape() {
    KERNEL_SHAPE shape;
    shape.m_bRead = true;
    shape.m_links = {
        {"br0", 1, 0, true, "ee:00:00:00:00:01"},  {"eth0", 2, 1, true, "ee:00:00:00:00:02"},
        {"eth1", 3, 1, true, "ee:00:00:00:00:03"}, {"veth0", 4, 1, true, "ee:00:00:00:00:04"},
        {"veth1", 5, 0, true, kTestVeth1Mac},      {"veth2", 6, 1, true, "ee:00:00:00:00:06"},
        {"veth3", 7, 0, true, kVeth3Mac},
    };
    shape.m_addresses = {{5, Address("192.168.1.2"), 24}, {7, Address("192.168.100.1"), 24}};
    shape.m_routes = {{5, Address("192.168.1.1"), 10}};
    return shape;
}

// The same without the link of that name (and what was on it).
inline KERNEL_SHAPE WithoutLink(KERNEL_SHAPE shape, const std::string& name) {
    for (auto it = shape.m_links.begin(); it != shape.m_links.end(); ++it) {
        if (it->m_name == name) {
            shape.m_links.erase(it);
            break;
        }
    }
    return shape;
}

// While in scope, the outside-change check reads `Shape` instead of the kernel,
// and counts its reads.
class KernelShapeScript {
public:
    KernelShapeScript()
        : m_previous(SetKernelShapeReader([this] {
              ++m_nReads;
              return m_shape;
          })) {}
    ~KernelShapeScript() { SetKernelShapeReader(std::move(m_previous)); }
    KernelShapeScript(const KernelShapeScript&) = delete;
    KernelShapeScript& operator=(const KernelShapeScript&) = delete;

    // What the reads give from now on.
    void Show(KERNEL_SHAPE shape) { m_shape = std::move(shape); }

    KERNEL_SHAPE m_shape = WholeTwoPortShape();
    int m_nReads = 0;

private:
    KernelShapeReader m_previous;
};

// The notifications recorded in tests/fixtures/`name` (tests/fixtures/record-kernel-events
// made them), one datagram each; empty when the file cannot be read.
inline std::vector<std::string> ReadKernelEvents(const std::string& name) {
    std::vector<std::string> datagrams;
    const char* folder = std::getenv("TESSEL_FIXTURES");
    if (folder == nullptr) return datagrams;
    for (const std::string& line : SplitLines(ReadFile(std::string(folder) + "/" + name))) {
        if (line.empty() || line[0] == '#') continue;
        std::string bytes;
        for (size_t i = 0; i + 1 < line.size(); i += 2) {
            bytes.push_back(static_cast<char>(std::stoi(line.substr(i, 2), nullptr, 16)));
        }
        datagrams.push_back(bytes);
    }
    return datagrams;
}
