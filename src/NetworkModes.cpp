// The mode words' lookups, kept out of line: the parser hands in words cut to
// the longest one it can take, which an inlined comparison would be checked against.
#include <cstring>

#include "src/NetworkConfig.h"

const BRIDGE_MODE_TEXT* FindBridgeModeByWord(const char* word) {
    for (const BRIDGE_MODE_TEXT& text : kBridgeModeTexts) {
        if (strcmp(word, text.m_szWord) == 0) return &text;
    }
    return nullptr;
}

const BRIDGE_MODE_TEXT* FindBridgeMode(BRIDGE_MODE mode) {
    for (const BRIDGE_MODE_TEXT& text : kBridgeModeTexts) {
        if (text.m_eMode == mode) return &text;
    }
    return nullptr;
}

const char* BridgeModeWord(BRIDGE_MODE mode) {
    const BRIDGE_MODE_TEXT* text = FindBridgeMode(mode);
    return text != nullptr ? text->m_szWord : "unknown";
}

const PHY_MODE_TEXT& PhyModeText(PHY_MODE mode) {
    for (const PHY_MODE_TEXT& text : kPhyModeTexts) {
        if (text.m_eMode == mode) return text;
    }
    return kPhyModeTexts[0];
}

const char* PhyModeWord(PHY_MODE mode) { return PhyModeText(mode).m_szWord; }

PHY_MODE PhyModeFromWord(const char* word) {
    for (const PHY_MODE_TEXT& text : kPhyModeTexts) {
        if (strcmp(word, text.m_szWord) == 0) return text.m_eMode;
    }
    return kPhyModeTexts[0].m_eMode;
}
