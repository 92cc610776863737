// "tessel-networkctl apply" and "confirm": a configuration installed on trial,
// which the daemon puts back (src/NetworkPending.h) unless it is confirmed in time.
#pragma once

#include <string>

struct APPLY_REQUEST {
    std::string m_file;              // the new configuration
    long long m_nWithinSeconds = 0;  // the window for "confirm"
    std::string m_configPath;        // the daemon's file; empty: the one its status document names
    std::string m_statusDirectory;   // where the status document lies
    long long m_nWaitSeconds = 60;   // how long to wait for the daemon at most (never past the deadline)
};

// Checks the file as the daemon would, refuses it (1) when unusable or when a
// configuration applied earlier still awaits confirmation, installs it in one
// step after keeping the running one as the rollback copy and writing the
// record, and waits until the daemon's status document shows it applied.
// Returns 0 applied, 1 refused or not applied in the wait (then restored at
// the deadline unless confirmed), 2 a wrong command line.
int ApplyConfig(const APPLY_REQUEST& request);

// Keeps the configuration applied last: removes the record and the rollback
// copy. 0 confirmed, 1 nothing awaits confirmation or it is too late.
int ConfirmConfig(const std::string& configPath, const std::string& statusDirectory);

// What the service manager runs before each start, outside the daemon's
// read-only sandbox: restores the previous configuration when a record's
// deadline has passed (as the daemon would), and does nothing otherwise. 0
// nothing to do or restored, 1 it could not be restored.
int RestoreIfDue(const std::string& configPath);
