// A C stream with one owner, closed (fclose) on every path out of the scope
// that holds it: the one type of the device's programs for the streams they
// keep where a reader needs fgets or fread. Descriptors are Util::UniqueFd.
#pragma once

#include <cstdio>
#include <memory>

namespace Util {

struct FileCloser {
    void operator()(FILE* file) const { fclose(file); }
};

using UniqueFile = std::unique_ptr<FILE, FileCloser>;

}  // namespace Util
