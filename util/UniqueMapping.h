// Anonymous memory mapped for one call and unmapped on every path out of it:
// a large buffer that must not stay resident once the call is done (the heap
// keeps what it held, and the stack's touched pages stay).
#pragma once

#include <sys/mman.h>

#include <cerrno>
#include <cstddef>

namespace Util {

class UniqueMapping {
public:
    // Maps `size` bytes, readable and writable; nothing is held when that fails.
    explicit UniqueMapping(size_t size) noexcept {
        // An anonymous mapping has no file: -1 is the descriptor it is given.
        // cppcheck-suppress invalidFunctionArg
        void* data = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (data != MAP_FAILED) {
            m_data = static_cast<char*>(data);
            m_size = size;
        }
    }
    // errno is kept, as a closed descriptor's owner keeps it.
    ~UniqueMapping() {
        if (m_data == nullptr) return;
        const int saved = errno;
        munmap(m_data, m_size);
        errno = saved;
    }
    UniqueMapping(const UniqueMapping&) = delete;
    UniqueMapping& operator=(const UniqueMapping&) = delete;
    UniqueMapping(UniqueMapping&&) = delete;
    UniqueMapping& operator=(UniqueMapping&&) = delete;

    bool IsMapped() const { return m_data != nullptr; }
    char* Data() const { return m_data; }
    size_t Size() const { return m_size; }

private:
    char* m_data = nullptr;
    size_t m_size = 0;
};

}  // namespace Util
