#include "cli/CliProcessing.h"

#include <algorithm>
#include <cstdio>

CliProcessing::CliProcessing() : m_nMandatoryFound(0), m_nMandatoryCount(0), m_bOverrideFound(false) {}

CliProcessing::~CliProcessing() = default;

int CliProcessing::AddParam(std::string key, std::string longName, std::string shortName, MANDATORY_E kind, bool flag,
                            std::string description, std::string argHint) {
    auto at = std::lower_bound(m_params.begin(), m_params.end(), key,
                               [](const PARAM_T& param, const std::string& wanted) { return param.m_strKey < wanted; });
    if (at != m_params.end() && at->m_strKey == key) return 3;
    m_params.insert(at, PARAM_T{key, shortName, longName, kind, flag, description, argHint});
    if (kind == PARAM_MANDATORY) m_nMandatoryCount++;
    return 0;
}

// Whole, case-sensitive names, long before short, options in key order; the first wins.
const PARAM_T* CliProcessing::Match(const std::string& name) const {
    for (const PARAM_T& param : m_params) {
        if (name == param.m_strLong || name == param.m_strShort) return &param;
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
            if (std::any_of(m_values.begin(), m_values.end(),
                            [param](const auto& value) { return value.first == param->m_strKey; })) {
                return 3;
            }
            if (param->m_bFlag) {
                m_values.emplace_back(param->m_strKey, "FLAG");
            } else {
                if (++i >= argc) return 1;
                m_values.emplace_back(param->m_strKey, argv[i]);  // verbatim, even when it looks like an option
            }
        }
    }
    if (m_bOverrideFound) return 0;
    return m_nMandatoryFound == m_nMandatoryCount ? 0 : 4;
}

std::string CliProcessing::operator[](std::string key) {
    for (const auto& [valueKey, value] : m_values) {
        if (valueKey == key) return value;
    }
    return {};
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
    for (const PARAM_T& param : m_params) {
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
