#include "util/UniqueMapping.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>

namespace {

// Whether /proc/self/maps lists a mapping that starts at `address`.
bool IsListed(const void* address) {
    char start[32];
    snprintf(start, sizeof start, "%lx-", static_cast<unsigned long>(reinterpret_cast<uintptr_t>(address)));
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (std::getline(maps, line)) {
        if (line.rfind(start, 0) == 0) return true;
    }
    return false;
}

TEST(UniqueMappingTest, MapsWritableMemoryAndUnmapsItWhenItGoesOutOfScope) {
    const void* address = nullptr;
    {
        const Util::UniqueMapping mapping(32768);
        ASSERT_TRUE(mapping.IsMapped());
        EXPECT_EQ(mapping.Size(), 32768U);
        address = mapping.Data();
        mapping.Data()[0] = 'a';
        mapping.Data()[32767] = 'z';
        EXPECT_EQ(mapping.Data()[0] + mapping.Data()[32767], 'a' + 'z');
        EXPECT_TRUE(IsListed(address));
    }
    EXPECT_FALSE(IsListed(address));
}

TEST(UniqueMappingTest, AFailedMappingHoldsNothing) {
    // A mapping of no bytes is refused (EINVAL).
    const Util::UniqueMapping mapping(0);
    EXPECT_FALSE(mapping.IsMapped());
    EXPECT_EQ(mapping.Data(), nullptr);
    EXPECT_EQ(mapping.Size(), 0U);
}

TEST(UniqueMappingTest, UnmappingKeepsErrno) {
    errno = 0;
    {
        const Util::UniqueMapping mapping(4096);
        ASSERT_TRUE(mapping.IsMapped());
        errno = ENOENT;
    }
    EXPECT_EQ(errno, ENOENT);
}

}  // namespace
