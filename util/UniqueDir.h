// A directory stream with one owner, closed (closedir) on every path out of the
// scope that holds it: the one type of the device's programs for the
// directories they list.
#pragma once

#include <dirent.h>

#include <memory>

namespace Util {

struct DirectoryCloser {
    void operator()(DIR* directory) const { closedir(directory); }
};

using UniqueDir = std::unique_ptr<DIR, DirectoryCloser>;

}  // namespace Util
