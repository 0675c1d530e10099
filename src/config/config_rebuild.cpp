// Merging a configuration file into the settings by name. Unlike a document from the
// service, a file may have extra or missing entries; some properties win over it, and the
// QuickTap properties follow the QuickTap module's settings.
#include "config/config_rebuild.h"

#include <jansson.h>
#include <strings.h>

#include <cctype>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "config/config_file.h"
#include "config/config_validation.h"
#include "config/json_helpers.h"
#include "core/daemon_state.h"
#include "core/log.h"
#include "core/module_registry.h"
#include "core/run_state.h"
#include "quicktap/quicktap.h"
#include "storage/storage_root.h"
#include "storage/utility.h"

namespace {

using vigild::config::JsonPtr;
using vigild::config::orEmpty;
using vigild::config::stringMember;

// atoi without its undefined overflow: out-of-range numbers are clamped.
int toInt(const char* text) {
    const char* p = text;
    while (isspace(static_cast<unsigned char>(*p))) p++;
    bool negative = false;
    if (*p == '+' || *p == '-') negative = *p++ == '-';
    long long number = 0;
    while (isdigit(static_cast<unsigned char>(*p))) {
        if (number <= static_cast<long long>(INT_MAX) + 1) number = number * 10 + (*p - '0');
        p++;
    }
    if (negative) number = -number;
    if (number > INT_MAX) return INT_MAX;
    if (number < INT_MIN) return INT_MIN;
    return static_cast<int>(number);
}

// The duration index the QuickTap timer property stands for: 0 to 5 are indexes already,
// other values are looked up among the options' seconds. -1 when it stands for none.
int durationIndexOfTimer(int timer, const Module::config& setting) {
    if (timer >= 0 && timer <= 5) return timer;
    for (size_t j = 0; j < setting.options.size(); j++) {
        if (setting.options[j] != nullptr && toInt(setting.options[j]) == timer) {
            return static_cast<int>(j);
        }
    }
    return -1;
}

bool isPathSettingName(const char* name) {
    name = orEmpty(name);
    return strcasecmp(name, "Log Path") == 0 || strcasecmp(name, "Storage Directory") == 0;
}

class Rebuild {
  public:
    int result = 0;

    // Applies one matching entry's value to the setting.
    void apply(modulePair& entry, Module::config& setting, std::string value) {
        const char* moduleName = orEmpty(entry.module->getName());
        if (value.find("/storage/sdcard1/") != std::string::npos ||
            (!isTellwickSecureModeEnabled() &&
             value.find("Tellwick/secure/log_data/") != std::string::npos)) {
            updateConfigDefault(false);
        }
        if (value != setting.value) {
            entry.restartNeeded = 1;
            if (strcasecmp(orEmpty(setting.name), "Enable internal sdcard only") == 0) {
                // The property wins over the file.
                value = isInternalSDcardEnabledLogging() ? "true" : "false";
            }
            // Secure mode keeps its own log folders whatever the file says.
            if (!(isTellwickSecureModeEnabled() && isPathSettingName(setting.name))) {
                copyValue(setting, value);
            }
            result = 1;
        }
        if (strstr(moduleName, "QuickTapModule") != nullptr) applyQuickTap(setting, value);
    }

  private:
    std::string quickTapProp_;

    static void copyValue(Module::config& setting, const std::string& value) {
        snprintf(setting.value, sizeof(setting.value), "%s", value.c_str());
    }

    void applyQuickTap(Module::config& setting, std::string value) {
        const char* name = orEmpty(setting.name);
        if (strstr(name, "Enable Module") != nullptr) {
            copyValue(setting, value);
            setprop("persist.sys.vd.quick_tap", value == "true" ? "true" : "false");
        } else if (strstr(name, "Select Module") != nullptr) {
            int number = toInt(value.c_str());
            // Always in range as the test is written; kept so.
            if (!isNumberInRange(number, 0, 22)) {
                value = "22";
                result = 1;
            }
            if (quickTapModeAtStart) {
                int fromProp = getQuickTapModFromProp();
                if (fromProp != number) value = std::to_string(fromProp);
            }
            copyValue(setting, value);
            quickTapProp_ += returnQuickTapModuleKey(toInt(setting.value));
        } else if (strstr(name, "Log Duration (sec)") != nullptr) {
            int duration = toInt(value.c_str());
            if (!isNumberInRange(duration, 0, 5)) {
                value = "0";
                duration = 0;
                result = 1;
            }
            if (quickTapModeAtStart) {
                int index = durationIndexOfTimer(getQuickTapTimerFromProp(), setting);
                if (index >= 0 && index != duration) {
                    duration = index;
                    value = std::to_string(index);
                }
            }
            copyValue(setting, value);
            setprop("persist.sys.vd.quick_tap_time_cb", duration == 0 ? "false" : "true");
            quickTapProp_ += "_" + std::to_string(duration);
            LOGD("makeUpdateConfig::quicktap prop == %s ", quickTapProp_.c_str());
            setprop("persist.sys.vd.quick_tap_module_time", quickTapProp_.c_str());
        }
    }
};

}  // namespace

int makeUpdateConfig(const char* text) {
    LOGD("makeUpdateConfig :BEGIN");
    JsonPtr document(text != nullptr ? json_loads(text, 0, nullptr) : nullptr);
    Rebuild rebuild;
    for (modulePair& entry : moduleRegistry) {
        const char* moduleName = entry.module->getName();
        const json_t* module = json_object_get(document.get(), moduleName);
        if (module == nullptr) {
            // Only Alder devices must carry the QuickTap module.
            if (!(strcmp(moduleName, "QuickTapModule") == 0 && !isDeviceAlder())) {
                rebuild.result = -1;
            }
            LOGI("no module key found with name: %s", moduleName);
            continue;
        }
        // Settings that are not an array hold no entries: each setting is then "not found".
        const json_t* settings = json_object_get(module, "settings");
        if (settings == nullptr) {
            LOGD("no key found with name: %s", moduleName);
            rebuild.result = -1;
            continue;
        }
        // Applied to a copy: a value may call out (properties, a path check that saves) while
        // other threads read the settings under configMutex.
        const Module::moduleConfig before = copySettings(entry);
        Module::moduleConfig changed = before;
        bool nameless = false;
        for (Module::config& setting : changed.configs) {
            bool found = false;
            for (size_t i = 0; i < json_array_size(settings); i++) {
                const json_t* received = json_array_get(settings, i);
                const char* type = stringMember(received, "type");
                if (type == nullptr) continue;
                const char* name = stringMember(received, "name");
                // A nameless entry makes the whole file suspect: the call ends here.
                if (name == nullptr) {
                    nameless = true;
                    break;
                }
                if (strcmp(name, orEmpty(setting.name)) != 0 ||
                    strcmp(type, orEmpty(setting.type)) != 0) {
                    continue;
                }
                const char* value = stringMember(received, "value");
                if (value == nullptr) {
                    nameless = true;
                    break;
                }
                found = true;
                rebuild.apply(entry, setting, value);
            }
            if (nameless) break;
            if (!found) {
                LOGD("did not find setting");
                rebuild.result = 1;
            }
        }
        storeChangedValues(entry, before, changed);
        if (nameless) return -1;
    }
    moduleValConfig(0);
    LOGD("makeUpdateConfig :END");
    return rebuild.result;
}
