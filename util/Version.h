// What a program of the device says of its build: the version and the source
// revision it was built from (--version of all three programs, the status
// document).
#pragma once

#include <string>

namespace Util {

// The project's version ("1.0.0").
const char* Version();
// The source revision: git's short commit name, "-modified" after it when the
// tree had changes not committed, "unknown" when built outside a checkout.
const char* SourceRevision();
// The line --version prints: "PROGRAM VERSION (revision REVISION)".
std::string VersionLine(const char* program);

}  // namespace Util
