// The configuration check shared by tessel-netcheck and "tessel-networkctl check".
#pragma once

#include <string>

// Reads the file at `path` with the daemon's own parser and prints on standard
// output the messages the daemon would log for it (as "LEVEL message"), the
// settings in effect and whether the daemon would act on it. Returns the exit
// status: 0 usable, 1 not usable, 2 the file cannot be read.
int CheckConfigFile(const std::string& path);
