// The internal network's fixed link-layer and IPv4 addresses, named once, and
// the compile-time joining that spells them into command texts.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>

// A text fixed at compile time that can be a template argument, so that a
// command can be joined from named pieces with nothing left to do at run time.
template <size_t N>
struct FIXED_TEXT {
    // Implicit, so that a string literal stands as a piece of its own.
    // cppcheck-suppress noExplicitConstructor
    constexpr FIXED_TEXT(const char (&text)[N]) { std::copy_n(text, N, m_text); }

    constexpr const char* Text() const { return m_text; }
    constexpr size_t Length() const { return N - 1; }

    char m_text[N]{};
};

template <FIXED_TEXT... Pieces>
constexpr auto JoinPieces() {
    std::array<char, (Pieces.Length() + ... + 0) + 1> text{};
    size_t at = 0;
    ((std::copy_n(Pieces.Text(), Pieces.Length(), text.begin() + at), at += Pieces.Length()), ...);
    return text;
}

template <FIXED_TEXT... Pieces>
inline constexpr auto kJoinedPieces = JoinPieces<Pieces...>();

// The pieces as one NUL-terminated text with static storage, fit for a step table.
template <FIXED_TEXT... Pieces>
inline constexpr const char* kJoined = kJoinedPieces<Pieces...>.data();

// The two MAC addresses of the internal network, whose traffic the two-port
// mode keeps off eth1 and veth0; the lower one is veth3's own.
inline constexpr FIXED_TEXT kInternalMacLow{"02:23:02:00:00:00"};
inline constexpr FIXED_TEXT kInternalMacHigh{"02:23:02:00:00:01"};
// The MAC address the two-port build gives veth3.
inline constexpr const char* kVeth3Mac = kInternalMacLow.Text();

// The two IPv4 addresses of the internal network, kept off eth1 and veth0 the same way.
inline constexpr FIXED_TEXT kInternalIpLow{"10.253.254.253"};
inline constexpr FIXED_TEXT kInternalIpHigh{"10.253.254.254"};
