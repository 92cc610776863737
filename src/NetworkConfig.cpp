// The configuration file parser: the settings record and its interface lines.
#include "src/NetworkConfig.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "logging/Logging.h"
#include "util/TextScan.h"
#include "util/UniqueFd.h"

// An ERROR entry about the file, also noted for a caller that collects them; a
// macro, so the entry names the function and line that found the problem.
#define CONFIG_ERROR(message)                               \
    do {                                                    \
        const std::string problem_ = (message);             \
        LOG_ENTRY(LOGGING_SEVERITY_ERROR, false, problem_); \
        NoteProblem(problem_);                              \
    } while (false)

namespace {

// Where the read in progress notes the problems it logs, when its caller asked.
std::vector<std::string>* s_problems = nullptr;

// ... and where the line being handled notes them, when its caller asked.
std::vector<std::string>* s_lineProblems = nullptr;

void NoteProblem(const std::string& message) {
    if (s_problems != nullptr) s_problems->push_back(message);
    if (s_lineProblems != nullptr) s_lineProblems->push_back(message);
}

// Sets where problems are noted for one read, and clears both on every way out.
class ProblemNotes {
public:
    explicit ProblemNotes(std::vector<std::string>* problems) { s_problems = problems; }
    ~ProblemNotes() {
        s_problems = nullptr;
        s_lineProblems = nullptr;
    }
    ProblemNotes(const ProblemNotes&) = delete;
    ProblemNotes& operator=(const ProblemNotes&) = delete;
};

// Line kinds in the order their keywords are looked for: the first keyword that
// occurs anywhere in the line decides, so "bridge" beats everything else.
enum LineKind { LINE_BRIDGE, LINE_PHY, LINE_VETH1, LINE_VETH3, LINE_VRX0, LINE_VRX1, LINE_OTHER };
static_assert(std::size(kConfigKeywords) == LINE_OTHER, "a keyword per kind, in the kinds' order");

LineKind FindLineKind(const char* line) {
    for (int kind = LINE_BRIDGE; kind < LINE_OTHER; ++kind) {
        if (strstr(line, kConfigKeywords[kind]) != nullptr) return static_cast<LineKind>(kind);
    }
    return LINE_OTHER;
}

// The bridge words a line may hold, as the message names them: "eth0|eth1|eth0eth1".
std::string BridgeModeChoices() {
    std::string choices;
    for (const BRIDGE_MODE_TEXT& text : kBridgeModeTexts) {
        if (!choices.empty()) choices += '|';
        choices += text.m_szWord;
    }
    return choices;
}

// A configuration file is a few hundred bytes; nothing near this is one.
constexpr size_t kConfigBytesMax = 65536;

// The whole file, read at once: its bytes, then how the read ended. Handed out
// in fgets' pieces, so a read error still comes where the stream would have met it.
struct ConfigText {
    size_t size = 0;
    size_t next = 0;
    bool error = false;  // the read after the bytes failed (rather than ended)
    char bytes[kConfigBytesMax + 1];
};

// Reads the file when it is a regular file of at most kConfigBytesMax bytes;
// false (with nothing read) otherwise. Opened without blocking, so a FIFO or a
// device at the path never holds the cycle up, and checked before any read.
bool ReadConfigFile(const std::string& path, ConfigText& text) {
    const Util::UniqueFd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    if (!fd.IsOpen()) return false;
    struct stat status {};
    bool usable = fstat(fd.Get(), &status) == 0 && S_ISREG(status.st_mode) &&
                  static_cast<size_t>(status.st_size) <= kConfigBytesMax;
    while (usable) {
        size_t wanted = sizeof text.bytes - text.size;
        ssize_t count = read(fd.Get(), text.bytes + text.size, wanted);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) {
            text.error = true;
            break;
        }
        text.size += static_cast<size_t>(count);
        // One byte past the bound means the file grew beyond it.
        if (text.size > kConfigBytesMax) usable = false;
        // A short read of a regular file that got all its bytes is its end: the
        // read that would return 0 is saved (files under /proc have no size and
        // are read until it comes).
        bool whole = status.st_size > 0 && text.size >= static_cast<size_t>(status.st_size);
        if (count == 0 || (whole && static_cast<size_t>(count) < wanted)) break;
    }
    return usable;
}

// fgets on the text: at most size - 1 bytes, up to and including a newline.
// False when nothing is left, and, as fgets, when the bytes ran out into a failed read.
bool ReadPiece(ConfigText& text, char* line, size_t size) {
    size_t count = 0;
    while (count + 1 < size && text.next < text.size) {
        char c = text.bytes[text.next++];
        line[count++] = c;
        if (c == '\n') break;
    }
    line[count] = '\0';
    // Where fgets would have needed another read to finish the piece.
    bool ranOut = text.next == text.size && count + 1 < size && (count == 0 || line[count - 1] != '\n');
    return count > 0 && !(ranOut && text.error);
}

}  // namespace

int ParseInterfaceLine(const std::string& name, char* line, IP_CONFIG& config) {
    // Widths cut longer words instead of rejecting them; the rest of a cut word
    // becomes the next word. 15 characters is the longest dotted quad.
    char mode[7] = {};
    char address[16] = {};
    char mask[16] = {};
    char gateway[16] = {};
    int words = Util::ScanWords(line, true, {{mode, 6}, {address, 15}, {mask, 15}, {gateway, 15}});
    if (words < 1) {
        CONFIG_ERROR("Invalid syntax for " + name + " entry in config file");
        return -1;
    }
    // Three addresses always demand "static"; fewer words allow only "dhcp".
    bool isStatic = words == 4 && strcmp(mode, "static") == 0;
    bool isDhcp = words < 4 && strcmp(mode, "dhcp") == 0;
    if (!isStatic && !isDhcp) {
        CONFIG_ERROR("Invalid syntax or address mode for " + name + " expected dhcp|static");
        return -1;
    }
    if (isDhcp) {
        // The addresses stay as they were: a DHCP interface takes its own from the lease.
        config.m_bDhcp = true;
        return 0;
    }

    // Each part is stored as soon as it is found good and nothing is rolled back,
    // so a bad mask leaves the new address in place.
    config.m_bDhcp = false;
    struct StaticPart {
        const char* word;
        in_addr IP_CONFIG::*field;
        const char* fault;
    };
    const StaticPart parts[] = {
        {address, &IP_CONFIG::m_ipAddress, "Invalid static IP address "},
        {mask, &IP_CONFIG::m_subnetMask, "Invalid static subnet mask "},
        {gateway, &IP_CONFIG::m_gateway, "Invalid static default gateway "},
    };
    for (const StaticPart& part : parts) {
        in_addr value{};
        if (!Util::ScanIpv4(part.word, value)) {
            CONFIG_ERROR(part.fault + name);
            return -1;
        }
        config.*part.field = value;
    }
    return 0;
}

int ParseConfigFile(const std::string& path, USER_SETTINGS& settings, bool& bSettingsValid, bool& bVrx0Valid,
                    bool& bVrx1Valid, std::vector<std::string>* problems, std::vector<CONFIG_LINE>* lines) {
    ProblemNotes notes(problems);
    // A phy line without a value has no message of its own and shares this one.
    static const char kNoValueWord[] = "Invalid bridge mode line in config file";

    // Read with as many system calls as opening, reading and closing it take
    // (the size from fstat saves the read that finds the end) and no stream
    // to allocate, then taken apart in memory. The text is kept outside the
    // stack: 64 KiB there would put everything called beneath the parse that
    // much deeper, on pages that stay resident; here a file touches only the
    // pages it fills. (One thread, and the parse never calls itself.)
    static ConfigText text;
    text.size = 0;
    text.next = 0;
    text.error = false;
    bool bReadable = ReadConfigFile(path, text);
    // 256 bytes as for fgets: a longer line comes back in 255-character pieces,
    // and each piece is classified as a line of its own.
    char line[256];
    bool bStarted = false;  // the first read worked and the outputs were reset
    // Per kind of line that a usable file needs: whether one came at all, good
    // or bad (a bad one has its message), and whether it counts as good.
    struct LINES_SEEN {
        bool m_bAny = false;
        bool m_bGood = false;
    };
    LINES_SEEN bridge;
    LINES_SEEN veth1;
    LINES_SEEN veth3;
    // Lines go into a copy that replaces the settings only once the whole file
    // was read, so a read that breaks off part-way leaves the last whole read.
    USER_SETTINGS read = settings;
    // The file's line the next piece belongs to.
    unsigned int nNextLine = 1;
    for (;;) {
        bool bGotLine = bReadable && ReadPiece(text, line, sizeof line);
        // Reading also stops on a read error: only a read that met the file's
        // end has read it whole.
        if (!bGotLine && (!bReadable || text.error)) {
            CONFIG_ERROR("Unable to read configuration file");
            // Before the first line nothing was touched; after it, this read vouches for nothing.
            if (bStarted) bSettingsValid = bVrx0Valid = bVrx1Valid = false;
            return -1;
        }
        if (!bStarted) {
            bSettingsValid = bVrx0Valid = bVrx1Valid = false;
            bStarted = true;
        }
        if (!bGotLine) break;
        const unsigned int nLine = nNextLine;
        const size_t length = strlen(line);
        if (length > 0 && line[length - 1] == '\n') ++nNextLine;
        // Only the very first character makes a comment or an empty line.
        if (line[0] == '#' || line[0] == '\n') continue;

        const LineKind kind = FindLineKind(line);
        if (lines != nullptr) {
            CONFIG_LINE& taken = lines->emplace_back();
            taken.m_nNumber = nLine;
            taken.m_text.assign(line, length > 0 && line[length - 1] == '\n' ? length - 1 : length);
            taken.m_szKeyword = kind == LINE_OTHER ? nullptr : kConfigKeywords[kind];
            s_lineProblems = &taken.m_problems;
        }
        // The value is always the second word; the first is skipped unread.
        switch (kind) {
            case LINE_BRIDGE: {
                bridge.m_bAny = true;
                // As long as the longest word ("eth0eth1"): a longer one is cut, and then no word.
                char word[9] = {};
                const bool bWord = Util::ScanWords(line, true, {{word, 8}}) == 1;
                const BRIDGE_MODE_TEXT* mode = bWord ? FindBridgeModeByWord(word) : nullptr;
                if (!bWord) {
                    CONFIG_ERROR(kNoValueWord);
                } else if (mode == nullptr) {
                    CONFIG_ERROR("Invalid bridge mode entry, expected " + BridgeModeChoices());
                } else {
                    read.m_eBridgeMode = mode->m_eMode;
                    bridge.m_bGood = true;  // only ever set: a later bad line does not undo a good one
                }
                break;
            }
            case LINE_PHY: {
                // As long as "frame", the one word that is not copper.
                char word[6] = {};
                if (Util::ScanWords(line, true, {{word, 5}}) != 1) {
                    CONFIG_ERROR(kNoValueWord);
                } else {
                    // Every word but "frame" means copper, without complaint.
                    read.m_ePhyMode = PhyModeFromWord(word);
                }
                break;
            }
            // The last line of each interface decides its flag.
            case LINE_VETH1:
                veth1.m_bAny = true;
                veth1.m_bGood = ParseInterfaceLine("veth1", line, read.m_veth1Config) == 0;
                break;
            case LINE_VETH3:
                veth3.m_bAny = true;
                veth3.m_bGood = ParseInterfaceLine("veth3", line, read.m_veth3Config) == 0;
                break;
            case LINE_VRX0:
                bVrx0Valid = ParseInterfaceLine("vrx0", line, read.m_vrx0Config) == 0;
                break;
            case LINE_VRX1:
                bVrx1Valid = ParseInterfaceLine("vrx1", line, read.m_vrx1Config) == 0;
                break;
            case LINE_OTHER:
                break;
        }
        s_lineProblems = nullptr;
    }
    settings = read;
    bSettingsValid = bridge.m_bGood && veth1.m_bGood && veth3.m_bGood;
    // Not logged (the daemon never has), but the reason the file is not used.
    if (!bridge.m_bAny) NoteProblem("No bridge line in config file");
    if (!veth1.m_bAny) NoteProblem("No veth1 line in config file");
    if (!veth3.m_bAny) NoteProblem("No veth3 line in config file");
    return 0;
}
