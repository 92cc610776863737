// An interface's link state, and the Ethernet PHY's mode.
#pragma once

#include <string>

#include "src/NetworkConfig.h"

// 0 and `up` set when the query worked (up = administratively up and running);
// -1 and `up` false when it failed.
int GenericInterfaceLinkIsUp(const std::string& name, bool& up);

// Writes the PHY type character ("4" SGMII, "0" otherwise) to the driver's file.
void SetEthernetPhyMode(const std::string& path, PHY_MODE mode);
