// An interface's link state, and the Ethernet PHY's mode.
#pragma once

#include <functional>
#include <string>

#include "src/NetworkConfig.h"
#include "src/NetworkShell.h"

// 0 and `up` set when the query worked (up = administratively up and running);
// -1 and `up` false when it failed.
int GenericInterfaceLinkIsUp(const std::string& name, bool& up);

// The function the link state is asked through; a dry run (tessel-networkctl
// plan) and tests put their own here, an empty one puts the kernel's query
// back. Returns the one it replaced.
using LinkStateReader = std::function<int(const std::string& name, bool& up)>;
LinkStateReader SetLinkStateReader(LinkStateReader reader);

// Writes the PHY type character ("4" SGMII, "0" otherwise) to the driver's file.
// True once the byte is written. False, with `failure` (when given) holding
// what failed in the log's words as its command and the error as an outcome
// that never started, when the file cannot be opened (the design's ERROR) or
// the byte is refused (an ERROR with the system's reason).
bool SetEthernetPhyMode(const std::string& path, PHY_MODE mode, WORK_FAILURE* failure = nullptr);
