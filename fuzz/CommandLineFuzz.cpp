// Argument vectors for the daemon's option declarations. The input is split at
// zero bytes into arguments after the program name. A small model of the two
// options says what ProcessCmdLine must return and keep.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "cli/CliProcessing.h"
#include "fuzz/FuzzCheck.h"

namespace {

struct Expected {
    int result = 0;
    std::string help;    // "FLAG" or empty
    std::string config;  // the value stored for --config, or empty
};

// "00help" sorts before "01cfg-file", and their names are distinct, so each
// argument matches at most one option.
Expected Model(const std::vector<std::string>& args) {
    Expected expected;
    bool overrideSeen = false;
    bool helpSeen = false;
    bool configSeen = false;
    int mandatoryFound = 0;
    for (size_t i = 0; i < args.size(); i++) {
        const std::string& arg = args[i];
        if (arg == "--help" || arg == "-h") {
            overrideSeen = true;
            if (helpSeen) return expected.result = 3, expected;
            helpSeen = true;
            expected.help = "FLAG";
        } else if (arg == "--config" || arg == "-c") {
            mandatoryFound++;
            if (configSeen) return expected.result = 3, expected;
            if (++i >= args.size()) return expected.result = 1, expected;
            configSeen = true;
            expected.config = args[i];
        } else {
            return expected.result = 1, expected;
        }
    }
    expected.result = (overrideSeen || mandatoryFound == 1) ? 0 : 4;
    return expected;
}

void Declare(CliProcessing& cli) {
    FUZZ_CHECK(cli.AddParam("00help", "--help", "-h", PARAM_OVERRIDE, true, "Shows this help", "") == 0);
    FUZZ_CHECK(cli.AddParam("01cfg-file", "--config", "-c", PARAM_MANDATORY, false, "Path to config file", "") == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> args;
    std::string current;
    for (size_t i = 0; i < size; i++) {
        if (data[i] == 0) {
            args.push_back(current);
            current.clear();
        } else {
            current += static_cast<char>(data[i]);
        }
    }
    if (!current.empty()) args.push_back(current);

    std::vector<char*> argv;
    std::string program = "tessel-networkd";
    argv.push_back(&program[0]);
    for (std::string& arg : args) argv.push_back(&arg[0]);
    argv.push_back(nullptr);
    int argc = static_cast<int>(argv.size()) - 1;

    CliProcessing cli;
    Declare(cli);
    std::string usageBefore = cli.GetUsage(40);
    int result = cli.ProcessCmdLine(argc, argv.data());

    Expected expected = Model(args);
    FUZZ_CHECK(result == expected.result);
    // Values stored before an early stop stay.
    FUZZ_CHECK(cli["00help"] == expected.help);
    FUZZ_CHECK(cli["01cfg-file"] == expected.config);
    FUZZ_CHECK(cli["never-declared"].empty());
    FUZZ_CHECK(cli.GetUsage(40) == usageBefore);

    // Parsing again on the same object gives the same answer: the override
    // mark it may keep only matters when the first parse saw --help, and then
    // both parses saw it.
    FUZZ_CHECK(cli.ProcessCmdLine(argc, argv.data()) == result);
    FUZZ_CHECK(cli["01cfg-file"] == expected.config);
    return 0;
}
