// An interface's IPv4 address and default route, put in and taken out.
#pragma once

#include <netinet/in.h>

#include <string>

// Why a piece of work stopped short (src/NetworkShell.h).
struct WORK_FAILURE;

// Removes every route, then every address, of the interface. Nothing to remove
// is no failure; false only when a command could not be run to its end.
bool FlushAddrAndRouting(const std::string& interfaceName, WORK_FAILURE* failure = nullptr);

// Adds the address with its dotted mask and, unless the gateway is 0.0.0.0, a
// default route with the metric. Removes nothing first. False when either failed.
bool SetAddrAndRouting(const std::string& interfaceName, unsigned int metric, in_addr address, in_addr mask,
                       in_addr gateway, WORK_FAILURE* failure = nullptr);
