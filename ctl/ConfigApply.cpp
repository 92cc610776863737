// "tessel-networkctl apply" and "confirm". The daemon does the restore: what
// is written here outlives this command, which may be cut off with the very
// network the new configuration breaks.
#include "ctl/ConfigApply.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "ctl/ConfigCheck.h"
#include "ctl/StatusView.h"
#include "src/NetworkConfig.h"
#include "src/NetworkPending.h"
#include "src/NetworkStatusSchema.h"
#include "util/Format.h"
#include "util/UniqueFd.h"

namespace {

nlohmann::json ReadDocument(const std::string& directory) {
    std::ifstream in(directory + "/" + kStatusFileName, std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!in) return nlohmann::json(nlohmann::json::value_t::discarded);
    return nlohmann::json::parse(text, nullptr, false);
}

// The configuration file the daemon reads: the one given, or the one its status document names.
std::string ConfigPathOf(const std::string& given, const std::string& statusDirectory) {
    if (!given.empty()) return given;
    const nlohmann::json document = ReadDocument(statusDirectory);
    if (document.is_object()) {
        const auto configuration = document.find("configuration");
        if (configuration != document.end() && configuration->is_object()) {
            const auto path = configuration->find("path");
            if (path != configuration->end() && path->is_string()) return path->get<std::string>();
        }
    }
    return "";
}

std::string DirectoryOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

bool ReadWhole(const std::string& path, std::string& text) {
    std::ifstream in(path, std::ios::binary);
    text.assign((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return !in.bad() && in.is_open();
}

// Writes `text` to a new file beside `path`, syncs it and renames it over
// `path`, then syncs the directory: a reader, or a reboot, finds the old file
// or the new one, whole. "" or the reason it failed.
std::string WriteInOneStep(const std::string& path, const std::string& text, mode_t mode) {
    const size_t slash = path.rfind('/');
    std::string temporary =
        DirectoryOf(path) + "/." + (slash == std::string::npos ? path : path.substr(slash + 1)) + ".apply-XXXXXX";
    Util::UniqueFd fd(mkostemp(temporary.data(), O_CLOEXEC));
    if (!fd.IsOpen()) return Util::Format("cannot create a file beside %s: %s", path.c_str(), strerror(errno));
    size_t written = 0;
    while (written < text.size()) {
        const ssize_t done = write(fd.Get(), text.data() + written, text.size() - written);
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) break;
        written += static_cast<size_t>(done);
    }
    std::string problem;
    if (written != text.size()) {
        problem = Util::Format("cannot write %s: %s", temporary.c_str(), strerror(errno));
    } else if (fchmod(fd.Get(), mode) != 0 || fsync(fd.Get()) != 0) {
        problem = Util::Format("cannot sync %s: %s", temporary.c_str(), strerror(errno));
    } else if (rename(temporary.c_str(), path.c_str()) != 0) {
        problem = Util::Format("cannot rename %s to %s: %s", temporary.c_str(), path.c_str(), strerror(errno));
    }
    fd.Reset();
    if (!problem.empty()) {
        unlink(temporary.c_str());
        return problem;
    }
    const Util::UniqueFd directory(open(DirectoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.IsOpen()) fsync(directory.Get());
    return "";
}

std::string IsoTime(long long seconds) { return Util::FormatIsoTime(timespec{static_cast<time_t>(seconds), 0}); }

std::string Dotted(in_addr address) { return inet_ntoa(address); }

const nlohmann::json* Field(const nlohmann::json& object, const char* name) {
    if (!object.is_object()) return nullptr;
    const auto found = object.find(name);
    return found == object.end() ? nullptr : &*found;
}

bool IsText(const nlohmann::json* value, const std::string& text) {
    return value != nullptr && value->is_string() && value->get<std::string>() == text;
}

bool Failing(const nlohmann::json& work) {
    const nlohmann::json* failing = Field(work, "failing");
    return failing != nullptr && failing->is_boolean() && failing->get<bool>();
}

// The works the document shows failing, by name ("veth1" for an interface's).
std::vector<std::string> FailingWorks(const nlohmann::json& document) {
    std::vector<std::string> names;
    const nlohmann::json* interfaces = Field(document, "interfaces");
    if (interfaces != nullptr && interfaces->is_array()) {
        for (const nlohmann::json& shown : *interfaces) {
            const nlohmann::json* name = Field(shown, "name");
            const nlohmann::json* work = Field(shown, "work");
            if (name != nullptr && name->is_string() && work != nullptr && Failing(*work)) {
                names.push_back(name->get<std::string>());
            }
        }
    }
    const nlohmann::json* works = Field(document, "work");
    if (works != nullptr && works->is_object()) {
        for (const auto& [name, work] : works->items()) {
            if (Failing(work)) names.push_back(name);
        }
    }
    return names;
}

// Why the document does not show `settings` applied, or shows a work failing
// that was not failing before (`before`); "" when it shows it applied.
std::string NotApplied(const nlohmann::json& document, const USER_SETTINGS& settings,
                       const std::vector<std::string>& before) {
    if (!document.is_object()) return "no status document";
    const nlohmann::json* configuration = Field(document, "configuration");
    const nlohmann::json* usable = configuration == nullptr ? nullptr : Field(*configuration, "usable");
    if (usable == nullptr || !usable->is_boolean() || !usable->get<bool>()) {
        return "the configuration it read last is not usable";
    }
    const BRIDGE_MODE_TEXT* bridge = FindBridgeMode(settings.m_eBridgeMode);
    if (bridge == nullptr || !IsText(Field(*configuration, "bridge_mode"), bridge->m_szWord) ||
        !IsText(Field(*configuration, "phy_mode"), PhyModeText(settings.m_ePhyMode).m_szWord)) {
        return "it still shows another bridge or PHY mode";
    }
    const nlohmann::json* interfaces = Field(document, "interfaces");
    if (interfaces != nullptr && interfaces->is_array()) {
        for (const nlohmann::json& shown : *interfaces) {
            const nlohmann::json* name = Field(shown, "name");
            const IP_CONFIG* config = IsText(name, "veth1")   ? &settings.m_veth1Config
                                      : IsText(name, "veth3") ? &settings.m_veth3Config
                                                              : nullptr;
            if (config == nullptr) continue;
            const std::string interface = name->get<std::string>();
            if (!IsText(Field(shown, "addressing"), config->m_bDhcp ? "dhcp" : "static")) {
                return interface + " still has its previous addressing";
            }
            if (!config->m_bDhcp) {
                const nlohmann::json* requested = Field(shown, "requested");
                const nlohmann::json* gateway = requested == nullptr ? nullptr : Field(*requested, "gateway");
                const bool bGatewayShown = config->m_gateway.s_addr == 0 ? gateway != nullptr && gateway->is_null()
                                                                         : IsText(gateway, Dotted(config->m_gateway));
                if (requested == nullptr || !IsText(Field(*requested, "address"), Dotted(config->m_ipAddress)) ||
                    !IsText(Field(*requested, "mask"), Dotted(config->m_subnetMask)) || !bGatewayShown) {
                    return interface + " still has its previous address";
                }
            }
        }
    }
    for (const std::string& name : FailingWorks(document)) {
        if (std::find(before.begin(), before.end(), name) == before.end()) return "its " + name + " work is failing";
    }
    return "";
}

}  // namespace

int ApplyConfig(const APPLY_REQUEST& request) {
    const std::string configPath = ConfigPathOf(request.m_configPath, request.m_statusDirectory);
    if (configPath.empty()) {
        fprintf(stderr,
                "tessel-networkctl: no status document names the daemon's configuration file; give it with "
                "--config\n");
        return 1;
    }
    if (CheckConfigFile(request.m_file) != 0) {
        fprintf(stderr, "tessel-networkctl: %s is not usable; nothing changed\n", request.m_file.c_str());
        return 1;
    }
    const std::string recordPath = PendingRecordPath(configPath);
    PENDING_RECORD pending;
    std::string problem;
    switch (ReadPendingRecord(recordPath, pending, problem)) {
        case PENDING_LOOK::kPending:
            fprintf(stderr,
                    "tessel-networkctl: a configuration applied earlier awaits confirmation until %s: run "
                    "\"tessel-networkctl confirm\" to keep it, or wait for it to be restored; nothing changed\n",
                    IsoTime(pending.m_nDeadline).c_str());
            return 1;
        case PENDING_LOOK::kRefused:
            fprintf(stderr, "tessel-networkctl: %s is there but is no record the daemon reads (%s); nothing changed\n",
                    recordPath.c_str(), problem.c_str());
            return 1;
        case PENDING_LOOK::kNone:
            break;
    }
    struct stat info {};
    std::string previous;
    if (lstat(configPath.c_str(), &info) != 0 || !S_ISREG(info.st_mode) || !ReadWhole(configPath, previous)) {
        fprintf(stderr, "tessel-networkctl: %s is not a configuration file to return to; nothing changed\n",
                configPath.c_str());
        return 1;
    }
    std::string text;
    if (!ReadWhole(request.m_file, text)) {
        fprintf(stderr, "tessel-networkctl: cannot read %s; nothing changed\n", request.m_file.c_str());
        return 1;
    }
    // What the daemon reads from the file, to know it in the status document.
    USER_SETTINGS settings;
    memset(&settings, 0, sizeof settings);
    bool bValid = false;
    bool bVrx0Valid = false;
    bool bVrx1Valid = false;
    ParseConfigFile(request.m_file, settings, bValid, bVrx0Valid, bVrx1Valid);

    // Work that failed before the change is not the change's doing.
    const std::vector<std::string> failingBefore = FailingWorks(ReadDocument(request.m_statusDirectory));

    // The copy first, then the record: a record always has its copy.
    const std::string rollbackPath = RollbackCopyPath(configPath);
    problem = WriteInOneStep(rollbackPath, previous, 0600);
    // Whole seconds, rounded up: the operator has at least the time asked for.
    const timespec now = Util::RealTimeNow();
    const long long deadline =
        static_cast<long long>(now.tv_sec) + (now.tv_nsec > 0 ? 1 : 0) + request.m_nWithinSeconds;
    if (problem.empty()) {
        problem =
            WriteInOneStep(recordPath, PendingRecordText(PENDING_RECORD{deadline, request.m_nWithinSeconds}), 0600);
    }
    if (problem.empty()) {
        problem = WriteInOneStep(configPath, text, info.st_mode & 07777);
        if (!problem.empty()) unlink(recordPath.c_str());
    }
    if (!problem.empty()) {
        unlink(rollbackPath.c_str());
        fprintf(stderr, "tessel-networkctl: %s; nothing changed\n", problem.c_str());
        return 1;
    }
    printf("Installed %s as %s; the previous configuration is kept as %s\n", request.m_file.c_str(), configPath.c_str(),
           rollbackPath.c_str());
    printf("It is restored at %s (in %lld s) unless \"tessel-networkctl confirm\" comes first.\n",
           IsoTime(deadline).c_str(), request.m_nWithinSeconds);
    fflush(stdout);

    const long long waitSeconds = std::min(request.m_nWaitSeconds, request.m_nWithinSeconds);
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(waitSeconds);
    std::string why;
    for (;;) {
        why = NotApplied(ReadDocument(request.m_statusDirectory), settings, failingBefore);
        if (why.empty() || std::chrono::steady_clock::now() >= until) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    if (why.empty()) {
        printf("Applied: tessel-networkd runs it. Keep it with \"tessel-networkctl confirm\" before %s.\n",
               IsoTime(deadline).c_str());
        return 0;
    }
    printf("Not applied within %lld s: %s. Unless confirmed, the previous configuration is restored at %s.\n",
           waitSeconds, why.c_str(), IsoTime(deadline).c_str());
    return 1;
}

int ConfirmConfig(const std::string& givenPath, const std::string& statusDirectory) {
    const std::string configPath = ConfigPathOf(givenPath, statusDirectory);
    if (configPath.empty()) {
        fprintf(stderr,
                "tessel-networkctl: no status document names the daemon's configuration file; give it with "
                "--config\n");
        return 1;
    }
    const std::string recordPath = PendingRecordPath(configPath);
    PENDING_RECORD record;
    std::string problem;
    const PENDING_LOOK look = ReadPendingRecord(recordPath, record, problem);
    if (look == PENDING_LOOK::kNone) {
        printf("Nothing awaits confirmation: %s is the configuration in place.\n", configPath.c_str());
        return 1;
    }
    if (look == PENDING_LOOK::kRefused) {
        fprintf(stderr, "tessel-networkctl: %s is there but is no record the daemon reads (%s)\n", recordPath.c_str(),
                problem.c_str());
        return 1;
    }
    if (RestoreDue(record, static_cast<long long>(Util::RealTimeNow().tv_sec))) {
        printf("Too late: the deadline %s has passed; tessel-networkd restores the previous configuration.\n",
               IsoTime(record.m_nDeadline).c_str());
        return 1;
    }
    // The record first: the daemon restores only while it is there, and renames the copy before removing it.
    if (unlink(recordPath.c_str()) != 0) {
        fprintf(stderr, "tessel-networkctl: cannot remove %s: %s\n", recordPath.c_str(), strerror(errno));
        return 1;
    }
    const std::string rollbackPath = RollbackCopyPath(configPath);
    if (unlink(rollbackPath.c_str()) != 0 && errno == ENOENT) {
        printf("Too late: tessel-networkd restored the previous configuration meanwhile.\n");
        return 1;
    }
    const Util::UniqueFd directory(open(DirectoryOf(configPath).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.IsOpen()) fsync(directory.Get());
    printf("Confirmed: %s stays.\n", configPath.c_str());
    return 0;
}

int RestoreIfDue(const std::string& configPath) {
    const std::string recordPath = PendingRecordPath(configPath);
    PENDING_RECORD record;
    std::string problem;
    const PENDING_LOOK look = ReadPendingRecord(recordPath, record, problem);
    if (look == PENDING_LOOK::kRefused) {
        fprintf(stderr, "tessel-networkctl: ignoring %s: %s\n", recordPath.c_str(), problem.c_str());
        return 0;
    }
    if (look == PENDING_LOOK::kNone || !RestoreDue(record, static_cast<long long>(Util::RealTimeNow().tv_sec))) {
        return 0;
    }
    switch (RestorePreviousConfig(configPath, problem)) {
        case RESTORE_RESULT::kRestored:
            printf("Configuration not confirmed within %lld s; restored the previous one\n",
                   static_cast<long long>(record.m_nWithinSeconds));
            return 0;
        case RESTORE_RESULT::kConfirmed:
            return 0;
        case RESTORE_RESULT::kCannot:
        case RESTORE_RESULT::kReadOnly:
            break;
    }
    fprintf(stderr, "tessel-networkctl: cannot restore the previous configuration from %s: %s\n",
            RollbackCopyPath(configPath).c_str(), problem.c_str());
    return 1;
}
