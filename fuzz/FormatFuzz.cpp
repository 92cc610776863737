// Util::Format with fixed formats and fuzzed arguments, checked against the
// C library's own formatting and the 4096-byte limit; and the duration text,
// checked by reading its fields back.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/FuzzCheck.h"
#include "util/Format.h"

namespace {

// What Format must give for a text that snprintf formats to `full`
// characters: the text up to its first zero byte, or "(truncated)" from 4096 on.
std::string Expected(const std::vector<char>& buffer, int full) {
    if (full >= 4096) return "(truncated)";
    return std::string(buffer.data());
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
template <typename... Args>
void Check(const char* format, Args... args) {
    int full = snprintf(nullptr, 0, format, args...);
    FUZZ_CHECK(full >= 0);
    std::vector<char> buffer(static_cast<size_t>(full) + 1);
    snprintf(buffer.data(), buffer.size(), format, args...);
    std::string expected = Expected(buffer, full);

    std::string viaPointer = Util::FormatFrom(format, args...);
    FUZZ_CHECK(viaPointer == expected);
    FUZZ_CHECK(viaPointer.size() <= 4095);
    FUZZ_CHECK(Util::Format(std::string(format), args...) == expected);
}
#pragma GCC diagnostic pop

void CheckDuration(unsigned int seconds) {
    std::string text = Util::FormatTimeDurAsDdHhMmSs(seconds);
    unsigned int days = 0, hours = 0, minutes = 0, secs = 0;
    int consumed = 0;
    FUZZ_CHECK(sscanf(text.c_str(), "%u:%2u:%2u:%2u%n", &days, &hours, &minutes, &secs, &consumed) == 4);
    FUZZ_CHECK(static_cast<size_t>(consumed) == text.size());
    FUZZ_CHECK(text.size() >= 11 && text[text.size() - 9] == ':');  // every field at least two digits
    FUZZ_CHECK(hours < 24 && minutes < 60 && secs < 60);
    FUZZ_CHECK(static_cast<unsigned long long>(days) * 86400ULL + hours * 3600ULL + minutes * 60ULL + secs == seconds);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    int number = input.ConsumeIntegral<int>();
    unsigned int unsignedNumber = input.ConsumeIntegral<unsigned int>();
    int width = input.ConsumeIntegralInRange<int>(-5000, 5000);
    char character = input.ConsumeIntegral<char>();
    std::string first = input.ConsumeRandomLengthString(6000);
    std::string second = input.ConsumeRemainingBytesAsString();

    Check("%s", first.c_str());
    Check("%s%s", first.c_str(), second.c_str());
    Check("SigHandler: Caught signal: %d, shutting down...", number);
    Check("tessel-networkd exiting with code of %d", number);
    Check("%u", unsignedNumber);
    Check("%02u:%02u:%02u:%02u", unsignedNumber, unsignedNumber % 24, unsignedNumber % 60, unsignedNumber % 61);
    Check("%x %o %X", unsignedNumber, unsignedNumber, unsignedNumber);
    Check("[%c]", character);
    Check("%*d|%-*s|", width, number, width, first.c_str());
    Check("%.*s", width, second.c_str());
    Check("%s %5d %s", first.c_str(), number, second.c_str());
    CheckDuration(unsignedNumber);
    return 0;
}
