// A configuration installed by "tessel-networkctl apply" that awaits the
// operator's confirmation: the record of it, the copy of the configuration it
// replaced, and the daemon's side, which restores that copy once the deadline
// has passed. Shared with the operator command, which writes what the daemon
// reads here.
#pragma once

#include <cstdint>
#include <string>

// Beside the configuration file, in its (root's) directory: "<config>.pending"
// holds the deadline, "<config>.rollback" the configuration to restore.
std::string PendingRecordPath(const std::string& configPath);
std::string RollbackCopyPath(const std::string& configPath);

// The longest confirmation window "apply" accepts: a day.
constexpr int64_t kMaxConfirmSeconds = 86400;

struct PENDING_RECORD {
    int64_t m_nDeadline = 0;       // wall-clock seconds since the epoch
    int64_t m_nWithinSeconds = 0;  // the window it was given, 1 .. kMaxConfirmSeconds
    bool operator==(const PENDING_RECORD&) const = default;
};

// The record's text: "tessel-networkd pending 1\ndeadline D\nwithin W\n".
std::string PendingRecordText(const PENDING_RECORD& record);

// Parses a record's text strictly: exactly the three lines above, decimal
// numbers without sign or leading zeros, a deadline after the epoch and a
// window within bounds. false: not a record (nothing in `record` is changed).
bool ParsePendingRecord(const std::string& text, PENDING_RECORD& record);

enum class PENDING_LOOK { kNone, kPending, kRefused };

// Reads the record at `path`: kNone when there is none, kPending with the
// record, kRefused with the reason in `problem` when it is not a regular file
// owned by root and writable by root alone (never followed through a link),
// or not a record. The rollback copy is checked the same way when restoring.
PENDING_LOOK ReadPendingRecord(const std::string& path, PENDING_RECORD& record, std::string& problem);

// Whether the previous configuration is due back at `nowSeconds` (wall clock):
// the deadline has passed, or it lies further ahead than its window (and the
// second "apply" rounds it up by) allows,
// which only a clock set back (a device without a real-time clock after a
// reboot) makes: waiting on such a clock could take years.
bool RestoreDue(const PENDING_RECORD& record, int64_t nowSeconds);

// What the daemon keeps between passes. A look at the record is due at start
// and when the configuration's directory changed; while one is pending, each
// pass looks at its deadline.
struct PENDING_STATE {
    bool m_bLookDue = true;
    bool m_bPending = false;
    PENDING_RECORD m_record;
};

// Renames the rollback copy (checked as the record is) over the configuration
// and removes the record. kRestored; kConfirmed: the record went meanwhile;
// kCannot (`problem`): no usable copy, the record is removed; kReadOnly
// (`problem`): the directory cannot be written here (a read-only system around
// the daemon), the record stays.
enum class RESTORE_RESULT { kRestored, kConfirmed, kCannot, kReadOnly };
RESTORE_RESULT RestorePreviousConfig(const std::string& configPath, std::string& problem);

// The daemon's side, before each pass: reads the record when a look is due
// or one is pending, and when its deadline has passed restores the previous
// configuration (a WARN). Costs nothing when no look is due and nothing is
// pending. true: the restore is due but the directory cannot be written from
// here; the daemon exits with kExitRestoreAtStart, and the service manager
// restores it ("tessel-networkctl restore-due", outside the sandbox) before
// starting it again.
bool SupervisePendingConfig(const std::string& configPath, PENDING_STATE& state);

// Neither a signal's number, nor 1 (a rejected command line), nor another instance's 75.
constexpr int kExitRestoreAtStart = 76;
