// tessel-networkctl: the operator's view of tessel-networkd.
//   tessel-networkctl status [--full] [--json] [--status-dir DIR]   what is configured, in force and wrong
//   tessel-networkctl check FILE                          a configuration file, as the daemon reads it
//   tessel-networkctl apply FILE --confirm-within SECONDS  installs FILE on trial (ConfigApply.h)
//   tessel-networkctl confirm                             keeps the configuration applied on trial
//   tessel-networkctl restore-due --config PATH           the restore, outside the daemon's sandbox
//   tessel-networkctl plan FILE                           what the daemon would do for FILE, run nowhere
// Exit status of status: 0 healthy, 1 degraded, 3 the daemon is not running or
// its document is stale; of check: 0 usable, 1 not usable, 2 unreadable; of
// apply: 0 applied, 1 refused or not applied; of confirm: 0 confirmed, 1
// nothing to confirm or too late; of plan: 0 printed, 1 FILE not usable, 2
// unreadable; 2 for a wrong command line.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "ctl/ConfigApply.h"
#include "ctl/ConfigCheck.h"
#include "ctl/ConfigPlan.h"
#include "ctl/StatusView.h"
#include "src/NetworkPending.h"
#include "src/NetworkStatusSchema.h"
#include "util/Version.h"

namespace {

const char kUsage[] =
    "Usage: tessel-networkctl COMMAND\n"
    "Commands:\n"
    "  status [--full] [--json] [--status-dir DIR]\n"
    "                                      what tessel-networkd has configured, what is in force\n"
    "                                      and what went wrong, within 80 columns; --full shows\n"
    "                                      long texts whole; --json prints its status document\n"
    "  check FILE                          reads a configuration file as the daemon would\n"
    "  apply FILE --confirm-within SECONDS [--config PATH] [--status-dir DIR]\n"
    "                                      checks FILE, installs it and waits until the daemon runs\n"
    "                                      it; the daemon restores the previous configuration unless\n"
    "                                      confirm comes within SECONDS\n"
    "  confirm [--config PATH] [--status-dir DIR]\n"
    "                                      keeps the configuration applied last\n"
    "  restore-due --config PATH           restores the previous configuration when one applied\n"
    "                                      was not confirmed in time (the service runs it at start)\n"
    "  plan FILE [--status-dir DIR] [--from PATH]\n"
    "                                      prints, running nothing, the commands and log lines the\n"
    "                                      daemon would produce going from the configuration it runs\n"
    "                                      (--from: PATH's; no daemon: nothing) to FILE's\n"
    "  help                                this text\n"
    "  --version                           the version and the source revision it was built from\n"
    "Exit status of status: 0 healthy, 1 degraded, 3 the daemon is not running or its status is\n"
    "stale; of check: 0 usable, 1 not usable, 2 the file cannot be read; of apply: 0 applied, 1\n"
    "refused or not applied; of confirm: 0 confirmed, 1 nothing to confirm or too late; of plan: 0\n"
    "printed, 1 FILE not usable, 2 a file cannot be read; 2 for a wrong command line.\n";

int Usage(FILE* out, int status) {
    fputs(kUsage, out);
    return status;
}

bool UseColour() {
    const char* term = getenv("TERM");
    return isatty(STDOUT_FILENO) == 1 && getenv("NO_COLOR") == nullptr && term != nullptr && strcmp(term, "dumb") != 0;
}

int Status(const std::vector<std::string>& args) {
    bool bJson = false;
    bool bFull = false;
    std::string directory = kStatusDirectory;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--json") {
            bJson = true;
        } else if (args[i] == "--full") {
            bFull = true;
        } else if (args[i] == "--status-dir" && i + 1 < args.size()) {
            directory = args[++i];
        } else {
            return Usage(stderr, 2);
        }
    }
    const std::string path = directory + "/" + kStatusFileName;
    std::ifstream in(path, std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // The daemon replaces the document in one step: what is read is one whole document.
    const nlohmann::json document =
        in ? nlohmann::json::parse(text, nullptr, false) : nlohmann::json(nlohmann::json::value_t::discarded);
    if (document.is_discarded() || !document.is_object()) {
        if (bJson) puts("null");
        if (!in) {
            // Standard output holds only JSON with --json.
            fprintf(bJson ? stderr : stdout, "tessel-networkd is not running: no status document at %s\n",
                    path.c_str());
            return STATUS_NOT_RUNNING;
        }
        fprintf(stderr, "tessel-networkctl: %s is not a status document\n", path.c_str());
        return STATUS_NOT_RUNNING;
    }
    const auto& schema = document.find("schema");
    if (schema == document.end() || *schema != kStatusSchema) {
        fprintf(stderr, "tessel-networkctl: %s has schema %s, this command knows %d\n", path.c_str(),
                schema == document.end() ? "none" : schema->dump().c_str(), kStatusSchema);
    }
    long pid = 0;
    const auto daemon = document.find("daemon");
    if (daemon != document.end() && daemon->is_object()) {
        const auto found = daemon->find("pid");
        if (found != daemon->end() && found->is_number_integer()) pid = found->get<long>();
    }
    const bool bRunning = DaemonRunning(pid);
    const std::vector<std::string> reasons = Degradations(document);
    if (bJson) {
        // As the daemon wrote it.
        fwrite(text.data(), 1, text.size(), stdout);
    } else {
        fputs(StatusTable(document, bRunning, reasons, UseColour(), bFull).c_str(), stdout);
    }
    if (!bRunning) return STATUS_NOT_RUNNING;
    return reasons.empty() ? STATUS_HEALTHY : STATUS_DEGRADED;
}

// A whole decimal number from 1 to `most`; 0 otherwise.
long long Seconds(const std::string& text, long long most) {
    if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos) return 0;
    const long long value = std::stoll(text);
    return value <= most ? value : 0;
}

int Apply(const std::vector<std::string>& args) {
    APPLY_REQUEST request;
    request.m_statusDirectory = kStatusDirectory;
    for (size_t i = 0; i < args.size(); ++i) {
        const bool bValue = i + 1 < args.size();
        if (args[i] == "--confirm-within" && bValue) {
            request.m_nWithinSeconds = Seconds(args[++i], kMaxConfirmSeconds);
            if (request.m_nWithinSeconds == 0) return Usage(stderr, 2);
        } else if (args[i] == "--config" && bValue) {
            request.m_configPath = args[++i];
        } else if (args[i] == "--status-dir" && bValue) {
            request.m_statusDirectory = args[++i];
        } else if (args[i] == "--wait" && bValue) {
            request.m_nWaitSeconds = Seconds(args[++i], kMaxConfirmSeconds);
            if (request.m_nWaitSeconds == 0) return Usage(stderr, 2);
        } else if (request.m_file.empty() && !args[i].empty() && args[i][0] != '-') {
            request.m_file = args[i];
        } else {
            return Usage(stderr, 2);
        }
    }
    if (request.m_file.empty() || request.m_nWithinSeconds == 0) return Usage(stderr, 2);
    return ApplyConfig(request);
}

int Confirm(const std::vector<std::string>& args) {
    std::string configPath;
    std::string directory = kStatusDirectory;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--config" && i + 1 < args.size()) {
            configPath = args[++i];
        } else if (args[i] == "--status-dir" && i + 1 < args.size()) {
            directory = args[++i];
        } else {
            return Usage(stderr, 2);
        }
    }
    return ConfirmConfig(configPath, directory);
}

int Plan(const std::vector<std::string>& args) {
    PLAN_REQUEST request;
    request.m_statusDirectory = kStatusDirectory;
    for (size_t i = 0; i < args.size(); ++i) {
        const bool bValue = i + 1 < args.size() && !args[i + 1].empty();
        if (args[i] == "--status-dir" && bValue) {
            request.m_statusDirectory = args[++i];
        } else if (args[i] == "--from" && bValue) {
            request.m_fromPath = args[++i];
        } else if (request.m_file.empty() && !args[i].empty() && args[i][0] != '-') {
            request.m_file = args[i];
        } else {
            return Usage(stderr, 2);
        }
    }
    if (request.m_file.empty()) return Usage(stderr, 2);
    return PlanConfig(request);
}

int Run(int argc, char** argv) {
    const std::vector<std::string> args(argv + (argc > 0 ? 1 : 0), argv + argc);
    if (args.empty()) return Usage(stderr, 2);
    const std::string& command = args[0];
    const std::vector<std::string> rest(args.begin() + 1, args.end());
    if (command == "help" || command == "-h" || command == "--help") return Usage(stdout, 0);
    if (command == "--version" && args.size() == 1) {
        puts(Util::VersionLine("tessel-networkctl").c_str());
        return 0;
    }
    if (command == "status") return Status(rest);
    if (command == "check") {
        if (rest.size() != 1 || rest[0].empty() || rest[0][0] == '-') return Usage(stderr, 2);
        return CheckConfigFile(rest[0]);
    }
    if (command == "apply") return Apply(rest);
    if (command == "confirm") return Confirm(rest);
    if (command == "plan") return Plan(rest);
    if (command == "restore-due") {
        if (rest.size() != 2 || rest[0] != "--config" || rest[1].empty()) return Usage(stderr, 2);
        return RestoreIfDue(rest[1]);
    }
    fprintf(stderr, "tessel-networkctl: unknown command %s\n", command.c_str());
    return Usage(stderr, 2);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& error) {
        // Out of memory, mostly: nothing was printed that could mislead.
        fprintf(stderr, "tessel-networkctl: %s\n", error.what());
        return 2;
    }
}
