#include "config/document.h"

#include <jansson.h>
#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <string>

#include "core/log.h"
#include "core/module_registry.h"
#include "platform/fs.h"
#include "platform/platform.h"
#include "service/ivd_service.h"
#include "storage/storage_root.h"
#include "storage/utility.h"

vigild::Mutex configMutex;

namespace {

// A JSON string of `text`. Setting values are bounded byte buffers whose cut may split a
// character, so invalid UTF-8 bytes become '?' rather than dropping the member.
json_t* jsonText(const char* text) {
    if (text == nullptr) text = "";
    if (json_t* value = json_string(text)) return value;
    std::string clean;
    const size_t n = strlen(text);
    for (size_t i = 0; i < n;) {
        const auto c = static_cast<unsigned char>(text[i]);
        size_t len = c < 0x80           ? 1
                     : (c >> 5) == 0x6  ? 2
                     : (c >> 4) == 0xE  ? 3
                     : (c >> 3) == 0x1E ? 4
                                        : 0;
        json_t* piece = len != 0 && i + len <= n ? json_stringn(text + i, len) : nullptr;
        if (piece == nullptr) {
            clean += '?';
            i++;
            continue;
        }
        json_decref(piece);
        clean.append(text + i, len);
        i += len;
    }
    return json_string(clean.c_str());
}

bool isPathSetting(const Module::config& setting) {
    if (setting.name == nullptr || setting.type == nullptr) return false;
    return (strcasecmp(setting.name, "Log Path") == 0 ||
            strcasecmp(setting.name, "Storage Directory") == 0) &&
           strcasecmp(setting.type, "string") == 0;
}

void resetToModuleFolder(Module::config& setting, const char* moduleName, const std::string& root) {
    if (moduleName == nullptr || moduleName[0] == '\0') return;
    // The folder is built from the current root; a longer one is cut to fit the buffer.
    snprintf(setting.value, sizeof(setting.value), "%s",
             returnCorrectedLogPath(moduleName, root).c_str());
}

// What the path checks of one build look up outside. The storage root is resolved by the
// caller before it takes configMutex (finding it may ask the service, run a shell command and
// settle a layout, none of which may run under the lock); whether a folder opens is asked
// once per build, not per setting.
struct PathLookups {
    const std::string& root;
    std::map<std::string, bool> opens;

    bool canOpen(const std::string& path) {
        auto known = opens.find(path);
        if (known != opens.end()) return known->second;
        FILE* stream = vigild::fs::fopen(path.c_str(), "r");
        if (stream != nullptr) fclose(stream);
        return opens.emplace(path, stream != nullptr).first->second;
    }
};

// A path setting must lie in the current storage root; anything else (an old card, a
// foreign folder, a value with too few "/") moves to the module's own default folder.
void checkPath(Module::config& setting, const char* moduleName, PathLookups& lookups) {
    char storagePathProp[vigild::platform::kPropValueMax];
    getprop(storagePathProp, "persist.sys.vd.storage_path", "UNKNOWN");
    // "/sdcard/" is one level deep, a card "/storage/<id>/" two.
    const int depth = strcmp(storagePathProp, "/sdcard/") == 0 ? 1 : 2;
    const std::string subPath = substrNthPlace(setting.value, "/", depth);

    if (strcasecmp(subPath.c_str(), "UNKNOWN") == 0) {
        LOGD("vigild::getConfig::Log path is UNKNOWN, need to reset");
        resetToModuleFolder(setting, moduleName, lookups.root);
        return;
    }
    // A value that climbs out with ".." or hides characters passes the prefix test alone.
    const bool keep = isCleanLogPath(setting.value) && lookups.canOpen(subPath) &&
                      strcasecmp(subPath.c_str(), lookups.root.c_str()) == 0;
    if (!keep) {
        LOGD("vigild::getConfig::path %s not found", setting.value);
        resetToModuleFolder(setting, moduleName, lookups.root);
    }
}

json_t* buildSetting(Module::config& setting, const char* moduleName, PathLookups& lookups) {
    json_t* object = json_object();
    json_object_set_new(object, "name", jsonText(setting.name));
    json_object_set_new(object, "type", jsonText(setting.type));
    if (isPathSetting(setting)) checkPath(setting, moduleName, lookups);
    json_object_set_new(object, "value", jsonText(setting.value));
    json_t* list = json_array();
    for (const char* option : setting.options) json_array_append_new(list, jsonText(option));
    json_object_set_new(object, "list", list);
    return object;
}

}  // namespace

std::string storageRootForDocument() {
    // Names and types are fixed once the modules are initialised, so this needs no lock.
    for (const modulePair& entry : moduleRegistry) {
        for (const Module::config& setting : entry.settings.configs) {
            if (isPathSetting(setting)) return getDefaultDirectory();
        }
    }
    return std::string();
}

char* getConfig() { return getConfig(storageRootForDocument()); }

char* getConfig(const std::string& root) {
    LOGD("getconfig:BEGIN");
    // The tree lives only inside this call: nothing is kept for another thread to free.
    json_t* document = json_object();
    PathLookups lookups{root, {}};
    for (modulePair& entry : moduleRegistry) {
        const char* moduleName = entry.settings.moduleName;
        json_t* settings = json_array();
        for (Module::config& setting : entry.settings.configs) {
            json_array_append_new(settings, buildSetting(setting, moduleName, lookups));
        }
        json_t* module = json_object();
        json_object_set_new(module, "settings", settings);
        json_object_set_new(document, moduleName != nullptr ? moduleName : "", module);
    }
    LOGD("getconfig before return");
    char* text = json_dumps(document, 0);
    json_decref(document);
    return text;
}

void decrefJson() {
    // getConfig frees its own tree before returning, so nothing is left over here; kept so
    // callers release in the same places they always did.
}

void sendConfig() {
    LOGD("sendConfig():BEGIN");
    sp<Ivd_service> service = Ivd_service::getInterface();
    if (service == nullptr) {
        LOGE("Failed to obtain a handle on vd_service");
        return;
    }
    const std::string root = storageRootForDocument();
    char* text = nullptr;
    {
        vigild::Lock lock(configMutex);
        text = getConfig(root);
    }
    // Sent after the lock is given back: a binder call may block for as long as the service
    // likes, and the other threads must not wait on it.
    if (text != nullptr) {
        service->sendConfig(text);
        free(text);
    }
    decrefJson();
    LOGD("sendConfig():END");
}
