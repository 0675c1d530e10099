#include "config_lint/config_lint.h"

#include <fcntl.h>
#include <jansson.h>
#include <strings.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "config/config_file.h"
#include "config/config_validation.h"
#include "config/document.h"
#include "core/module_loader.h"
#include "core/module_registry.h"
#include "modcheck/scratch_device.h"
#include "platform/fs.h"
#include "storage/storage_root.h"
#include "storage/utility.h"

namespace vdtools {
namespace {

constexpr const char* kInternalRoot = "/sdcard/";

struct JsonDeleter {
    void operator()(json_t* json) const { json_decref(json); }
};
using JsonPtr = std::unique_ptr<json_t, JsonDeleter>;

std::string quoted(const std::string& text) { return "\"" + text + "\""; }

std::string where(const char* module, const char* setting) {
    return quoted(module) + " / " + quoted(setting);
}

const char* stringMember(json_t* object, const char* key) {
    return json_string_value(json_object_get(object, key));
}

bool isPathSetting(const Module::config& c) {
    return (strcasecmp(c.name, "Log Path") == 0 || strcasecmp(c.name, "Storage Directory") == 0) &&
           strcasecmp(c.type, "string") == 0;
}

bool isIndexOf(const char* text, size_t count) {
    if (*text == '\0' || strlen(text) > 9 || (text[0] == '0' && text[1] != '\0')) return false;
    for (const char* p = text; *p != '\0'; ++p) {
        if (*p < '0' || *p > '9') return false;
    }
    return static_cast<size_t>(atoi(text)) < count;
}

// Puts single values through the daemon's validation by swapping them into the default
// document, which validates as it stands.
class ValueJudge {
  public:
    ValueJudge() {
        char* text = getConfig();
        if (text != nullptr) document_.reset(json_loads(text, 0, nullptr));
        free(text);
    }

    // Empty when the daemon takes `value` for setting `index` of module `moduleIndex`; else
    // the daemon's reason.
    std::string judge(const char* module, size_t index, const char* value, LogCapture& capture) {
        json_t* settings = json_object_get(json_object_get(document_.get(), module), "settings");
        json_t* setting = json_array_get(settings, index);
        if (setting == nullptr) return "";
        JsonPtr old(json_incref(json_object_get(setting, "value")));
        json_object_set_new(setting, "value", json_string(value));
        char* text = json_dumps(document_.get(), 0);
        size_t from = capture.lines().size();
        int rc = text == nullptr ? 0 : validateConfig(text);
        free(text);
        json_object_set(setting, "value", old.get());
        if (rc == 0) return "";
        std::vector<std::string> why = capture.errorsSince(from);
        return why.empty() ? "refused" : why.back();
    }

  private:
    JsonPtr document_;
};

// The file's entries by module, checked by name as the daemon rebuilds from a file.
void checkStructure(json_t* root, LintResult& result, LogCapture& capture,
                    std::vector<std::vector<const char*>>& fileValues) {
    ValueJudge judge;
    fileValues.assign(moduleRegistry.size(), {});
    for (size_t m = 0; m < moduleRegistry.size(); ++m) {
        modulePair& entry = moduleRegistry[m];
        const char* module = entry.settings.moduleName;
        fileValues[m].assign(entry.settings.configs.size(), nullptr);
        json_t* object = json_object_get(root, module);
        if (object == nullptr) {
            if (strcmp(module, "QuickTapModule") == 0 && !isDeviceAlder()) {
                result.warnings.push_back("module " + quoted(module) +
                                          " is missing: its settings stay as they are");
            } else {
                result.errors.push_back("module " + quoted(module) +
                                        " is missing: vigild would reset every setting to its "
                                        "default and apply the file again");
            }
            continue;
        }
        json_t* settings = json_object_get(object, "settings");
        if (!json_is_array(settings)) {
            result.errors.push_back("module " + quoted(module) +
                                    " has no \"settings\" array: vigild would reset every setting "
                                    "to its default and apply the file again");
            continue;
        }
        std::vector<bool> used(json_array_size(settings), false);
        for (size_t i = 0; i < entry.settings.configs.size(); ++i) {
            const Module::config& c = entry.settings.configs[i];
            bool found = false;
            for (size_t k = 0; k < json_array_size(settings); ++k) {
                json_t* item = json_array_get(settings, k);
                const char* name = stringMember(item, "name");
                const char* type = stringMember(item, "type");
                if (name == nullptr || type == nullptr || strcmp(name, c.name) != 0 ||
                    strcmp(type, c.type) != 0) {
                    continue;
                }
                used[k] = true;
                found = true;
                const char* value = stringMember(item, "value");
                if (value == nullptr) {
                    result.errors.push_back(where(module, c.name) +
                                            " has no string \"value\": vigild would reset every "
                                            "setting to its default and apply the file again");
                    continue;
                }
                fileValues[m][i] = value;
                std::string why = judge.judge(module, i, value, capture);
                if (!why.empty()) {
                    result.errors.push_back(where(module, c.name) + ": " + quoted(value) +
                                            " does not fit type " + quoted(c.type) + " (" + why +
                                            ")");
                } else if (strcmp(c.type, "list") == 0 && !isIndexOf(value, c.options.size())) {
                    result.warnings.push_back(where(module, c.name) + ": " + quoted(value) +
                                              " is not an index of its " +
                                              std::to_string(c.options.size()) + " options");
                }
            }
            if (!found) {
                result.warnings.push_back(where(module, c.name) +
                                          " is missing: it keeps its current value");
            }
        }
        for (size_t k = 0; k < used.size(); ++k) {
            if (used[k]) continue;
            json_t* item = json_array_get(settings, k);
            const char* name = stringMember(item, "name");
            const char* type = stringMember(item, "type");
            if (name == nullptr) {
                result.errors.push_back("module " + quoted(module) + ": setting entry " +
                                        std::to_string(k) +
                                        " has no \"name\": vigild stops reading the file there");
            } else {
                result.warnings.push_back(where(module, name) +
                                          (type == nullptr ? " has no \"type\"" : " is unknown") +
                                          ": vigild ignores it");
            }
        }
    }
    const char* key;
    json_t* value;
    json_object_foreach(root, key, value) {
        bool known = false;
        for (const modulePair& entry : moduleRegistry) {
            known = known || strcmp(entry.settings.moduleName, key) == 0;
        }
        if (!known)
            result.warnings.push_back("module " + quoted(key) + " is unknown: vigild ignores it");
    }
}

std::string configPath() { return configFilePath(kInternalRoot); }

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
    json_error_t error;
    JsonPtr root(json_loads(text.c_str(), 0, &error));
    if (root == nullptr) {
        result.errors.push_back("line " + std::to_string(error.line) + ", column " +
                                std::to_string(error.column) + ": " + error.text);
        return result;
    }
    if (!json_is_object(root.get())) {
        result.errors.push_back("the top level is not a JSON object");
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
    std::vector<std::vector<const char*>> fileValues;
    checkStructure(root.get(), result, capture, fileValues);

    // Now let the daemon load it as its own configuration file.
    const std::string path = configPath();
    int fd = vigild::fs::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, 0660);
    bool written =
        fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (fd >= 0) ::close(fd);
    if (!written) {
        result.errors.push_back("cannot write the scratch copy of the file");
        return result;
    }
    size_t from = capture.lines().size();
    loadConfigFile(path.c_str());
    bool failed = false;
    for (size_t i = from; i < capture.lines().size(); ++i) {
        failed = failed || capture.lines()[i].text == "config file load failed, load again";
    }
    if (failed && result.errors.empty()) {
        result.errors.push_back(
            "vigild could not apply the file: it would reset every setting "
            "to its default and apply the file again");
    }

    for (size_t m = 0; m < moduleRegistry.size(); ++m) {
        const char* module = moduleRegistry[m].settings.moduleName;
        const auto& configs = moduleRegistry[m].settings.configs;
        for (size_t i = 0; i < configs.size(); ++i) {
            const Module::config& c = configs[i];
            const char* wanted = i < fileValues[m].size() ? fileValues[m][i] : nullptr;
            if (wanted != nullptr && strcmp(wanted, c.value) != 0) {
                result.warnings.push_back(
                    where(module, c.name) + ": " + quoted(wanted) +
                    (isPathSetting(c) ? " would be corrected to " : " would become ") +
                    quoted(c.value));
            }
            const std::string& before = defaults[m][i];
            if (before != c.value) {
                result.changes.push_back(where(module, c.name) + ": " + quoted(before) + " -> " +
                                         quoted(c.value));
            }
        }
    }
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
