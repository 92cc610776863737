// A small command-line processor: declare options, parse argv, read values by key.
#pragma once

#include <string>
#include <utility>
#include <vector>

enum MANDATORY_E : int {
    PARAM_OPTIONAL = 0,
    PARAM_MANDATORY = 1,
    PARAM_OVERRIDE = 2,   // when given, the mandatory check is skipped (--help)
    PARAM_ATTRIBUTE = 3,  // parsed like PARAM_OPTIONAL; only its usage word differs
};

struct PARAM_T {
    std::string m_strKey;
    std::string m_strShort;
    std::string m_strLong;
    MANDATORY_E m_eMandatory;
    bool m_bFlag;  // true: takes no value
    std::string m_strDescription;
    std::string m_strArgHint;
};

class CliProcessing {
public:
    CliProcessing();
    virtual ~CliProcessing();

    // 0 declared; 3 the key is already declared (the first declaration stands).
    int AddParam(std::string key, std::string longName, std::string shortName, MANDATORY_E kind, bool flag,
                 std::string description, std::string argHint);

    // 0 parsed; 1 unknown argument or missing value; 3 an option given twice;
    // 4 a mandatory option missing and no override given.
    int ProcessCmdLine(int argc, char** argv);

    // The value parsed for `key` ("FLAG" for a flag), or an empty string.
    std::string operator[](std::string key);

    // Whether `name` is a declared long or short name. Counts a match the way the
    // parser does (mandatory found, override seen).
    bool IsParam(std::string name);

    // The key of the option with that long or short name, or an empty string.
    std::string GetParamName(std::string name);

    // One line per option in key order, the long-name column `width` wide.
    std::string GetUsage(int width);

private:
    const PARAM_T* Match(const std::string& name) const;
    void CountMatch(const PARAM_T& param);

    // A handful of options: kept in vectors, the declarations in key order
    // (a search tree would map a part of the C++ library this alone uses).
    std::vector<std::pair<std::string, std::string>> m_values;
    std::vector<PARAM_T> m_params;
    int m_nMandatoryFound;
    int m_nMandatoryCount;
    bool m_bOverrideFound;
};
