// A C stream that closes itself on every path out of the call that opened it.
#pragma once

#include <cstdio>
#include <memory>

struct FileCloser {
    void operator()(FILE* file) const { fclose(file); }
};

using UniqueFile = std::unique_ptr<FILE, FileCloser>;
