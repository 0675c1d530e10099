#include "config/document.h"

#include <jansson.h>
#include <strings.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <string_view>

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
json_t* jsonText(std::string_view text) {
    if (json_t* value = json_stringn(text.data(), text.size())) return value;
    std::string clean;
    const size_t n = text.size();
    for (size_t i = 0; i < n;) {
        const auto c = static_cast<unsigned char>(text[i]);
        size_t len = c < 0x80           ? 1
                     : (c >> 5) == 0x6  ? 2
                     : (c >> 4) == 0xE  ? 3
                     : (c >> 3) == 0x1E ? 4
                                        : 0;
        json_t* piece = len != 0 && i + len <= n ? json_stringn(text.data() + i, len) : nullptr;
        if (piece == nullptr) {
            clean += '?';
            i++;
            continue;
        }
        json_decref(piece);
        clean.append(text.data() + i, len);
        i += len;
    }
    return json_stringn(clean.data(), clean.size());
}

json_t* jsonText(const char* text) {
    return jsonText(text != nullptr ? std::string_view(text) : std::string_view());
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
// settle a layout, none of which may run under the lock); the storage-path property is read
// and each folder opened once per build, not per setting.
struct PathLookups {
    const std::string& root;
    // "/sdcard/" is one level deep, a card "/storage/<id>/" two.
    int depth = 2;
    std::map<std::string, bool> opens;

    explicit PathLookups(const std::string& resolvedRoot) : root(resolvedRoot) {
        char storagePathProp[vigild::platform::kPropValueMax];
        getprop(storagePathProp, "persist.sys.vd.storage_path", "UNKNOWN");
        depth = strcmp(storagePathProp, "/sdcard/") == 0 ? 1 : 2;
    }

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
    const std::string subPath = substrNthPlace(setting.value, "/", lookups.depth);

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

// A value buffer that a module filled to the brim has no terminator: never read past it.
std::string_view valueText(const Module::config& setting) {
    return {setting.value, strnlen(setting.value, sizeof(setting.value))};
}

json_t* buildSetting(const Module::config& setting) {
    json_t* object = json_object();
    json_object_set_new(object, "name", jsonText(setting.name));
    json_object_set_new(object, "type", jsonText(setting.type));
    json_object_set_new(object, "value", jsonText(valueText(setting)));
    json_t* list = json_array();
    for (const char* option : setting.options) json_array_append_new(list, jsonText(option));
    json_object_set_new(object, "list", list);
    return object;
}

// The path checks of one build, in registry order: they may rewrite values and log, so they
// run on every build, whether the text is then built or taken from the cache.
void checkPaths(const std::string& root) REQUIRES(configMutex) {
    std::optional<PathLookups> lookups;
    for (modulePair& entry : moduleRegistry) {
        for (Module::config& setting : entry.settings.configs) {
            if (!isPathSetting(setting)) continue;
            if (!lookups) lookups.emplace(root);
            checkPath(setting, entry.settings.moduleName, *lookups);
        }
    }
}

char* buildText() REQUIRES(configMutex) {
    // The tree lives only inside this call: nothing is kept for another thread to free.
    json_t* document = json_object();
    for (const modulePair& entry : moduleRegistry) {
        const char* moduleName = entry.settings.moduleName;
        json_t* settings = json_array();
        for (const Module::config& setting : entry.settings.configs) {
            json_array_append_new(settings, buildSetting(setting));
        }
        json_t* module = json_object();
        json_object_set_new(module, "settings", settings);
        json_object_set_new(document, moduleName != nullptr ? moduleName : "", module);
    }
    char* text = json_dumps(document, 0);
    json_decref(document);
    return text;
}

// The last text built, and every byte it was built from: each module's name, each setting's
// name, type, value and options, with counts, in registry order. A build whose inputs match
// byte for byte returns the kept text; anything else (a value set by any writer, a path moved
// by the checks above) shows up as a difference, so no writer has to announce its change.
struct DocumentCache {
    std::string inputs;
    std::string text;
    bool valid = false;
};
DocumentCache gDocument GUARDED_BY(configMutex);

// Compares the registry with the kept inputs in one pass, rewriting them from the first
// difference on. True when nothing differed.
class InputsPass {
  public:
    explicit InputsPass(std::string& inputs) : inputs_(inputs) {}

    void text(const char* s) { bytes(s != nullptr ? std::string_view(s) : std::string_view()); }
    void bytes(std::string_view s) {
        put(s.data(), s.size());
        put("", 1);
    }
    void count(size_t n) {
        const auto value = static_cast<uint64_t>(n);
        put(&value, sizeof(value));
    }
    bool finish() {
        if (same_ && at_ != inputs_.size()) same_ = false;
        inputs_.resize(at_);
        return same_;
    }

  private:
    void put(const void* data, size_t size) {
        if (same_) {
            if (size <= inputs_.size() - at_ && memcmp(inputs_.data() + at_, data, size) == 0) {
                at_ += size;
                return;
            }
            same_ = false;
            inputs_.resize(at_);
        }
        inputs_.append(static_cast<const char*>(data), size);
        at_ += size;
    }

    std::string& inputs_;
    size_t at_ = 0;
    bool same_ = true;
};

bool inputsUnchanged() REQUIRES(configMutex) {
    InputsPass pass(gDocument.inputs);
    pass.count(moduleRegistry.size());
    for (const modulePair& entry : moduleRegistry) {
        pass.text(entry.settings.moduleName);
        pass.count(entry.settings.configs.size());
        for (const Module::config& setting : entry.settings.configs) {
            pass.text(setting.name);
            pass.text(setting.type);
            pass.bytes(valueText(setting));
            pass.count(setting.options.size());
            for (const char* option : setting.options) pass.text(option);
        }
    }
    return pass.finish();
}

char* copyOf(const std::string& text) {
    char* copy = static_cast<char*>(malloc(text.size() + 1));
    if (copy != nullptr) memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
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

char* getConfig() {
    const std::string root = storageRootForDocument();
    vigild::Lock lock(configMutex);
    return getConfig(root);
}

char* getConfig(const std::string& root) {
    LOGD("getconfig:BEGIN");
    checkPaths(root);
    LOGD("getconfig before return");
    if (inputsUnchanged() && gDocument.valid) return copyOf(gDocument.text);
    char* text = buildText();
    gDocument.valid = text != nullptr;
    if (text != nullptr) {
        gDocument.text = text;
    } else {
        gDocument.text.clear();
        gDocument.inputs.clear();
    }
    return text;
}

char* buildConfigUncached(const std::string& root) {
    checkPaths(root);
    return buildText();
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
