// The status document's file, replaced in one step so that a reader never
// sees half of it.
#pragma once

#include <string>

#include "util/UniqueFd.h"

// Replaces `directory`/status.json with `text` in one step (a file written
// beside it, mode 0644, renamed over it). Creates the directory (mode 0755)
// when missing; refuses one that is a symbolic link, not owned by this user or
// writable by others. False, with the reason in `error`, when it did not happen.
bool WriteStatusFile(const std::string& directory, const std::string& text, std::string& error);

// The directory itself, open, made and checked as above: what else the daemon
// keeps there (its instance lock) is held to the same rules. Holds nothing,
// with the reason in `error`, when it is refused.
Util::UniqueFd OpenStatusDirectory(const std::string& directory, std::string& error);

// Replaces `directory`/tessel_networkd.prom with `text` in one step, as the
// document (a file written beside it, never through a link, mode 0644,
// renamed over it). The directory is the operator's (the node exporter's
// textfile directory): never created; one that is missing, a symbolic link or
// writable by group or others is refused; it may belong to another user.
bool WriteMetricsFile(const std::string& directory, const std::string& text, std::string& error);
