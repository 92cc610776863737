#include "util/Version.h"

#include <string>

// Written at every build (cmake/Revision.cmake).
#include "TesselRevision.h"

namespace Util {

const char* Version() { return TESSEL_VERSION; }

const char* SourceRevision() { return TESSEL_REVISION; }

std::string VersionLine(const char* program) {
    return std::string(program) + " " + Version() + " (revision " + SourceRevision() + ")";
}

}  // namespace Util
