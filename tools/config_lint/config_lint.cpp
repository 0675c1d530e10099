#include "config_lint/config_lint.h"

#include <fcntl.h>
#include <jansson.h>
#include <strings.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "config/config_diagnosis.h"
#include "config/config_file.h"
#include "config/config_validation.h"
#include "config/document.h"
#include "config/json_helpers.h"
#include "core/module_loader.h"
#include "core/module_registry.h"
#include "modcheck/scratch_device.h"
#include "platform/fs.h"
#include "storage/storage_root.h"
#include "storage/utility.h"

namespace vdtools {
namespace {

using vigild::config::JsonPtr;

constexpr const char* kInternalRoot = "/sdcard/";

std::string quoted(const std::string& text) { return "\"" + text + "\""; }

std::string where(const char* module, const char* setting) {
    return quoted(module) + " / " + quoted(setting);
}

bool isPathSetting(const Module::config& c) {
    return (strcasecmp(c.name, "Log Path") == 0 || strcasecmp(c.name, "Storage Directory") == 0) &&
           strcasecmp(c.type, "string") == 0;
}

std::string configPath() { return configFilePath(kInternalRoot); }

// The file's entry the daemon's load takes for a setting (the last one of that name and type,
// as each match is applied in turn), or -1.
int fileEntryOf(json_t* root, const char* module, const Module::config& c) {
    json_t* settings = json_object_get(json_object_get(root, module), "settings");
    int found = -1;
    for (size_t k = 0; k < json_array_size(settings); ++k) {
        json_t* item = json_array_get(settings, k);
        const char* name = json_string_value(json_object_get(item, "name"));
        const char* type = json_string_value(json_object_get(item, "type"));
        if (name != nullptr && type != nullptr && strcmp(name, c.name) == 0 &&
            strcmp(type, c.type) == 0) {
            found = static_cast<int>(k);
        }
    }
    return found;
}

LintFinding at(const std::string& text, const std::vector<std::string>& path, std::string what) {
    ConfigProblem place = placeOf(text.c_str(), path);
    return {place.line, place.column, std::move(what)};
}

}  // namespace

std::vector<std::string> prepareRegistry(const std::string& hostModuleDir) {
    std::vector<std::string> refusals;
    makeDeviceDirs(kLibraryFolder);
    makeDeviceDirs(std::string(kInternalRoot) + kTellwickFolder);
    if (!hostModuleDir.empty()) {
        for (const std::string& file : moduleLibrariesIn(hostModuleDir)) {
            if (!copyToDevice(hostModuleDir + "/" + file, kLibraryFolder + file)) {
                refusals.push_back(file + ": cannot be copied");
            }
        }
    }
    // A device that ever ran vigild has its storage root recorded; without it every log path
    // would be moved on the first build of the document.
    char root[vigild::platform::kPropValueMax];
    getprop(root, "persist.sys.vd.storage_path", "UNKNOWN");
    if (strcmp(root, "UNKNOWN") == 0) setprop("persist.sys.vd.storage_path", kInternalRoot);

    LogCapture capture(false);
    moduleRegistry.clear();
    buildModuleRegistry(kLibraryFolder);
    std::vector<std::string> errors = capture.errorsSince(0);
    refusals.insert(refusals.end(), errors.begin(), errors.end());
    for (const CapturedLine& line : capture.lines()) {
        if (line.text.find("is present but not loaded") != std::string::npos) {
            refusals.push_back(line.text);
        }
    }
    return refusals;
}

LintResult lintConfig(const std::string& text) {
    LintResult result;
    LogCapture capture(false);
    for (const ConfigProblem& problem : diagnoseConfigFile(text.c_str())) {
        (problem.rejects ? result.errors : result.warnings)
            .push_back({problem.line, problem.column, problem.reason});
    }
    const std::string rejected = quoted(std::string("config.json") + kRejectedCopySuffix);
    const std::string resetVerdict =
        "vigild would refuse this file: every setting goes back to its default, and the file "
        "is kept as " +
        rejected;
    JsonPtr root(json_loads(text.c_str(), 0, nullptr));
    if (root == nullptr || !json_is_object(root.get())) {
        result.verdict = resetVerdict;
        return result;
    }
    // The module's own defaults, before anything (configVal included) rewrites them.
    std::vector<std::vector<std::string>> defaults;
    for (const modulePair& entry : moduleRegistry) {
        defaults.emplace_back();
        for (const Module::config& c : entry.settings.configs) {
            defaults.back().push_back(c.defaultValue);
        }
    }

    // Now let the daemon load it as its own configuration file, on the scratch root.
    const std::string path = configPath();
    int fd = vigild::fs::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, 0660);
    bool written =
        fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (fd >= 0) ::close(fd);
    if (!written) {
        result.errors.push_back({0, 0, "cannot write the scratch copy of the file"});
        return result;
    }
    size_t from = capture.lines().size();
    loadConfigFile(path.c_str());
    bool failed = false;
    for (size_t i = from; i < capture.lines().size(); ++i) {
        failed = failed || capture.lines()[i].text == "config file load failed, load again";
    }
    if (failed) {
        if (result.errors.empty()) {
            result.errors.push_back({0, 0, "vigild could not apply the file"});
        }
        result.verdict = resetVerdict;
        return result;
    }

    size_t corrected = 0;
    for (size_t m = 0; m < moduleRegistry.size(); ++m) {
        modulePair& entry = moduleRegistry[m];
        const char* module = entry.settings.moduleName;
        const auto& configs = entry.settings.configs;
        for (size_t i = 0; i < configs.size(); ++i) {
            const Module::config& c = configs[i];
            const int k = fileEntryOf(root.get(), module, c);
            const char* wanted =
                k < 0 ? nullptr
                      : json_string_value(json_object_get(
                            json_array_get(
                                json_object_get(json_object_get(root.get(), module), "settings"),
                                static_cast<size_t>(k)),
                            "value"));
            if (wanted != nullptr && strcmp(wanted, c.value) != 0) {
                corrected++;
                result.warnings.push_back(
                    at(text, {module, "settings", std::to_string(k), "value"},
                       where(module, c.name) + ": " + quoted(wanted) +
                           (isPathSetting(c) ? " would be corrected to " : " would become ") +
                           quoted(c.value)));
            }
            const std::string& before = defaults[m][i];
            if (before != c.value) {
                result.changes.push_back(where(module, c.name) + ": " + quoted(before) + " -> " +
                                         quoted(c.value));
            }
        }
        // The module's own judgement of what it would run with.
        Module::moduleConfig judged = entry.settings;
        std::vector<std::string> objections;
        entry.module->configVal(judged, objections);
        for (size_t j = 0; j + 1 < objections.size(); j += 2) {
            int k = -1;
            for (const Module::config& c : configs) {
                if (objections[j] == c.name) k = fileEntryOf(root.get(), module, c);
            }
            result.warnings.push_back(at(text, {module, "settings", std::to_string(k)},
                                         "module " + quoted(module) + " objects to " +
                                             quoted(objections[j]) + ": " + objections[j + 1]));
        }
    }
    result.verdict = corrected == 0 ? "vigild would apply the file as it is"
                                    : "vigild would apply the file and correct " +
                                          std::to_string(corrected) + " value(s) (see warnings)";
    return result;
}

std::string defaultDocument() {
    LogCapture capture(false);
    // A fresh device has no file: the daemon writes one from the defaults.
    updateConfigDefault(true);
    char* text = fileReader(configPath().c_str());
    std::string out = text != nullptr ? text : "";
    delete[] text;
    return out;
}

}  // namespace vdtools
