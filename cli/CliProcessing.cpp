#include "cli/CliProcessing.h"

#include <cstdio>

CliProcessing::CliProcessing() : m_nMandatoryFound(0), m_nMandatoryCount(0), m_bOverrideFound(false) {}

CliProcessing::~CliProcessing() = default;

int CliProcessing::AddParam(std::string key, std::string longName, std::string shortName, MANDATORY_E kind, bool flag,
                            std::string description, std::string argHint) {
    if (m_params.count(key) != 0) return 3;
    PARAM_T param{key, shortName, longName, kind, flag, description, argHint};
    m_params.emplace(key, param);
    if (kind == PARAM_MANDATORY) m_nMandatoryCount++;
    return 0;
}

// Whole, case-sensitive names, long before short, options in key order; the first wins.
const PARAM_T* CliProcessing::Match(const std::string& name) const {
    for (const auto& entry : m_params) {
        if (name == entry.second.m_strLong || name == entry.second.m_strShort) return &entry.second;
    }
    return nullptr;
}

void CliProcessing::CountMatch(const PARAM_T& param) {
    if (param.m_eMandatory == PARAM_MANDATORY) m_nMandatoryFound++;
    if (param.m_eMandatory == PARAM_OVERRIDE) m_bOverrideFound = true;
}

int CliProcessing::ProcessCmdLine(int argc, char** argv) {
    m_nMandatoryFound = 0;
    m_values.clear();
    // m_bOverrideFound stays: once --help was seen on this object it stays in force.
    if (argc >= 2) {
        if (m_params.empty()) return 1;
        for (int i = 1; i < argc; i++) {
            const PARAM_T* param = Match(argv[i]);
            if (param == nullptr) return 1;
            CountMatch(*param);
            if (m_values.count(param->m_strKey) != 0) return 3;
            if (param->m_bFlag) {
                m_values[param->m_strKey] = "FLAG";
            } else {
                if (++i >= argc) return 1;
                m_values[param->m_strKey] = argv[i];  // verbatim, even when it looks like an option
            }
        }
    }
    if (m_bOverrideFound) return 0;
    return m_nMandatoryFound == m_nMandatoryCount ? 0 : 4;
}

std::string CliProcessing::operator[](std::string key) {
    auto found = m_values.find(key);
    return found == m_values.end() ? std::string() : found->second;
}

bool CliProcessing::IsParam(std::string name) {
    const PARAM_T* param = Match(name);
    if (param == nullptr) return false;
    CountMatch(*param);
    return true;
}

std::string CliProcessing::GetParamName(std::string name) {
    const PARAM_T* param = Match(name);
    return param == nullptr ? std::string() : param->m_strKey;
}

std::string CliProcessing::GetUsage(int width) {
    static const char* const kKindWords[] = {"Optional", "Mandatory", "Override", "Attribute"};
    std::string usage;
    std::string format = "    %s, %-" + std::to_string(width) + "s [%-9s] %s\n";
    for (const auto& entry : m_params) {
        const PARAM_T& param = entry.second;
        int kind = param.m_eMandatory;
        const char* word = (kind >= PARAM_OPTIONAL && kind <= PARAM_ATTRIBUTE) ? kKindWords[kind] : "";
        std::string longColumn = param.m_strLong + param.m_strArgHint;
        char line[256];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        snprintf(line, sizeof line, format.c_str(), param.m_strShort.c_str(), longColumn.c_str(), word,
                 param.m_strDescription.c_str());
#pragma GCC diagnostic pop
        usage += line;  // an over-long line is cut at 255 characters
    }
    return usage;
}
