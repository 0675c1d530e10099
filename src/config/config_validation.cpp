// Checking a document received from the companion service against the registry, applying
// it by position, letting the modules judge it, saving it and restarting what changed.
#include "config/config_validation.h"

#include <jansson.h>

#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "config/config_file.h"
#include "config/document.h"
#include "config/json_helpers.h"
#include "core/daemon_state.h"
#include "core/log.h"
#include "core/module_registry.h"
#include "core/run_state.h"
#include "platform/fs.h"
#include "platform/platform.h"
#include "service/ivd_service.h"
#include "storage/storage_root.h"
#include "storage/utility.h"

std::atomic<bool> btSnoopConfigChanged{false};

namespace {

using vigild::config::JsonPtr;
using vigild::config::orEmpty;
using vigild::config::stringMember;

// Copies into a setting's fixed buffer, cutting what does not fit.
void copyValue(char (&dst)[VD_CONFIG_VALUE_SIZE], const char* src) {
    snprintf(dst, sizeof(dst), "%s", src);
}

// The length test of an int or list value: the decimal text of what atoi reads from the value
// (its absolute value for a list) must be as long as the value. A number outside int's range
// fails: atoi's result would be undefined there.
bool fitsNumberFormat(const char* value, bool absolute) {
    const char* p = value;
    while (isspace(static_cast<unsigned char>(*p))) p++;
    bool negative = false;
    if (*p == '+' || *p == '-') {
        negative = *p == '-';
        p++;
    }
    long long number = 0;
    while (isdigit(static_cast<unsigned char>(*p))) {
        number = number * 10 + (*p - '0');
        if (number > static_cast<long long>(INT_MAX) + 1) return false;
        p++;
    }
    if (!negative && number > INT_MAX) return false;
    if (negative && !absolute) number = -number;
    char text[22];
    int length = snprintf(text, sizeof(text), "%lld", number);
    return length == static_cast<int>(strlen(value));
}

bool fitsType(const char* type, const char* value) {
    if (strcmp(type, "int") == 0) return fitsNumberFormat(value, false);
    if (strcmp(type, "list") == 0) return fitsNumberFormat(value, true);
    if (strcmp(type, "boolean") == 0) {
        return strcmp(value, "true") == 0 || strcmp(value, "false") == 0;
    }
    return true;
}

// One setting at the same position in both; false after its error line.
bool validateSetting(const Module::config& expected, const json_t* received) {
    const char* name = stringMember(received, "name");
    if (name == nullptr || strcmp(name, orEmpty(expected.name)) != 0) {
        LOGE("Error setting name was not the same %s %s", orEmpty(name), orEmpty(expected.name));
        return false;
    }
    const char* type = stringMember(received, "type");
    if (type == nullptr || strcmp(type, orEmpty(expected.type)) != 0) {
        LOGE("Error setting type was not the same");
        return false;
    }
    const char* value = stringMember(received, "value");
    if (value == nullptr) {
        LOGE("Value was not pressent");
        return false;
    }
    if (!fitsType(orEmpty(expected.type), value)) {
        LOGE("Value recived does not fit the expected format it was defined for");
        return false;
    }
    const json_t* list = json_object_get(received, "list");
    if (!json_is_array(list)) {
        LOGE("Error in module JSON format expected array");
        return false;
    }
    // Entries beyond the registry's count are ignored.
    for (size_t j = 0; j < expected.options.size(); j++) {
        const char* entry = json_string_value(json_array_get(list, j));
        if (entry == nullptr || expected.options[j] == nullptr ||
            strcmp(entry, expected.options[j]) != 0) {
            LOGE("Error list values do not match");
            return false;
        }
    }
    return true;
}

Module::config* firstEnableSetting(modulePair& entry) {
    for (Module::config& c : entry.settings.configs) {
        if (strcmp(orEmpty(c.name), "Enable Module") == 0 &&
            strcmp(orEmpty(c.type), "boolean") == 0) {
            return &c;
        }
    }
    return nullptr;
}

// validateConfig's check. The parsed document is handed back in `document` (null when the
// text does not parse), so setConfig applies what it checked without parsing it again.
int checkReceived(const char* text, JsonPtr& document) {
    LOGD("validateConfig():BEGIN");
    json_error_t error;
    document.reset(text != nullptr ? json_loads(text, 0, &error) : nullptr);
    if (document == nullptr) {
        if (text == nullptr) {
            LOGE("error: on line %d: %s\n", -1, "no text");
        } else {
            LOGE("error: on line %d: %s\n", error.line, error.text);
        }
        return -1;
    }
    if (!json_is_object(document.get()) ||
        json_object_size(document.get()) != moduleRegistry.size()) {
        LOGE("The number of elements in the recived Json string is not equal to the number sent");
        return -1;
    }
    for (modulePair& entry : moduleRegistry) {
        const char* moduleName = entry.module->getName();
        LOGD("module is %s", moduleName);
        const json_t* settings =
            json_object_get(json_object_get(document.get(), moduleName), "settings");
        if (!json_is_array(settings)) {
            LOGE("Error in module JSON format expected array");
            return -1;
        }
        const std::vector<Module::config>& configs = entry.settings.configs;
        if (json_array_size(settings) != configs.size()) {
            LOGE("Error wrong number of elements returned in module %s", moduleName);
            return -1;
        }
        for (size_t i = 0; i < configs.size(); i++) {
            if (!validateSetting(configs[i], json_array_get(settings, i))) return -1;
        }
    }
    LOGD("validateConfig():END");
    return 0;
}

// updateConfig on a parsed document; a null one (a text that did not parse) changes nothing.
int applyReceived(const json_t* document) {
    LOGD("updateConfig:BEGIN");
    int internalSdcardOnlyChanged = 0;
    btSnoopConfigChanged = false;
    // The end-of-file monitor and the file watch read these values on their own threads.
    vigild::Lock lock(configMutex);
    for (modulePair& entry : moduleRegistry) {
        const char* moduleName = entry.module->getName();
        LOGD("module is %s", moduleName);
        // A text that does not fit the registry (a rejected one applied after a reset) only
        // updates what it has at the matching positions.
        const json_t* settings = json_object_get(json_object_get(document, moduleName), "settings");
        std::vector<Module::config>& configs = entry.settings.configs;
        for (size_t i = 0; i < configs.size(); i++) {
            const char* value = stringMember(json_array_get(settings, i), "value");
            if (value == nullptr || strcmp(configs[i].value, value) == 0) continue;
            if (strcmp(orEmpty(configs[i].name), "Enable internal sdcard only") == 0) {
                internalSdcardOnlyChanged = 1;
            }
            if (strcmp(moduleName, "BTSnoopLogModule") == 0 &&
                strcmp(orEmpty(configs[i].name), "Enable Module") == 0) {
                Module::config* enable = firstEnableSetting(entry);
                bool enabled = enable != nullptr && strcmp(enable->value, "true") == 0;
                LOGD("updateConfig() BTSnooplog - MODULE_CONFIG_ENABLE enable: %d", enabled);
                if (!enabled) {
                    btSnoopConfigChanged = true;
                    LOGD("updateConfig() BTSnooplog - MODULE_CONFIG_ENABLE - CHANGED TO ENABLED");
                    LOGD("module is %s", moduleName);
                    isBTSnooplogConfigChanged();
                } else {
                    // Disabling is not reported: the service stops the snoop log itself.
                    LOGD("updateConfig() BTSnooplog - MODULE_CONFIG_ENABLE - CHANGED TO DISABLED");
                }
            }
            entry.restartNeeded = 1;
            copyValue(configs[i].value, value);
        }
    }
    LOGD("updateConfig :END");
    return internalSdcardOnlyChanged;
}

}  // namespace

bool valueFitsType(const char* type, const char* value) { return fitsType(type, value); }

int validateConfig(const char* text) {
    JsonPtr document;
    return checkReceived(text, document);
}

int updateConfig(const char* text) {
    JsonPtr document(text != nullptr ? json_loads(text, 0, nullptr) : nullptr);
    return applyReceived(document.get());
}

int moduleValConfig(int mode) {
    LOGD("moduleValConfig :BEGIN");
    JsonPtr feedback(json_object());
    bool hasMessages = false;
    std::vector<std::string> errors;
    for (modulePair& entry : moduleRegistry) {
        errors.clear();
        // The module judges a copy, so no lock is held while it runs.
        const Module::moduleConfig before = copySettings(entry);
        Module::moduleConfig judged = before;
        entry.module->configVal(judged, errors);
        storeChangedValues(entry, before, judged);
        // Name and message come in pairs; a trailing unpaired element adds no member, but the
        // module still answers with its (empty) object.
        if (errors.empty()) continue;
        json_t* messages = json_object();
        for (size_t k = 0; k + 1 < errors.size(); k += 2) {
            json_object_set_new(messages, errors[k].c_str(), json_string(errors[k + 1].c_str()));
        }
        json_object_set_new(feedback.get(), entry.module->getName(), messages);
        hasMessages = true;
    }
    if (mode == 1 && hasMessages) {
        char* text = json_dumps(feedback.get(), 0);
        if (text == nullptr) {
            LOGE("Error building string for user feedback");
        } else {
            sp<Ivd_service> service = Ivd_service::getInterface();
            if (service == nullptr) {
                LOGE("Failed to obtain a handle on vd_service");
            } else {
                service->sendConfigErrorMessage(text);
            }
            free(text);
        }
    }
    LOGD("moduleValConfig :END");
    return 0;
}

void moduleRestartNeeded(std::string configPath) {
    if (configPath.empty()) return;
    if (FILE* file = vigild::fs::fopen(configPath.c_str(), "r")) {
        fclose(file);
        return;
    }
    // The file is gone: every enabled module must start over with a new one.
    vigild::Lock lock(configMutex);
    for (modulePair& entry : moduleRegistry) {
        Module::config* enable = firstEnableSetting(entry);
        if (enable == nullptr) continue;
        LOGD("vigild::moduleRestartNeeded::config file not present");
        if (strcmp(enable->value, "true") == 0) entry.restartNeeded = 1;
    }
}

void isBTSnooplogConfigChanged() {
    LOGD("isBTSnooplogConfigChanged() :BEGIN");
    sp<Ivd_service> service = Ivd_service::getInterface();
    if (service == nullptr) {
        LOGE("Failed to obtain a handle on vd_service");
    } else {
        service->isBTSnooplogConfigChanged(btSnoopConfigChanged);
    }
    LOGD("isBTSnooplogConfigChanged():END");
}

void setConfig(const char* text) {
    LOGD("setConfig:BEGIN");
    // Parsed once: the text that is checked is the one applied below.
    JsonPtr received;
    int rc = checkReceived(text, received);
    LOGD("validate returns %i", rc);
    if (rc != 0) {
        resetAndUpdateConfig();
        char* defaults = nullptr;
        const std::string root = storageRootForDocument();
        {
            vigild::Lock lock(configMutex);
            defaults = getConfig(root);
        }
        int defaultsRc = defaults != nullptr ? validateConfig(defaults) : -1;
        free(defaults);
        if (defaultsRc != 0) {
            // The reset already happened; nothing is sent and nothing restarts.
            LOGE("There was an error with the loaded config.  Staying with current known settings");
            LOGD("setConfig:END");
            return;
        }
        // The rejected text is still applied on top of the defaults, as far as it fits.
    }

    const int internalSdcardOnlyChanged = applyReceived(received.get());
    received.reset();
    vigild::platform::syncPoint("setConfig.applied");
    moduleValConfig(1);

    if (internalSdcardOnlyChanged) {
        // A change of storage place restarts every enabled module.
        for (modulePair& entry : moduleRegistry) {
            if (isEntryEnabled(entry)) entry.restartNeeded = 1;
        }
    }

    std::string storagePath = getDefaultDirectory();
    LOGD("setConfig::c_storage_path == %s", storagePath.c_str());
    setprop("persist.sys.vd.storage_path", storagePath.c_str());
    std::string directory = getDefaultDirectory();

    std::string filePath = configFilePath(directory);
    if (runState == kStateRunning) moduleRestartNeeded(filePath);

    updateConfigDefault(false);
    {
        vigild::Lock lock(configMutex);
        char* document = getConfig(directory);
        if (document != nullptr) {
            saveFile(filePath.c_str(), document);
            free(document);
        }
    }

    sendConfig();
    restartModules();
    LOGD("setConfig:END");
}
