#include "core/module_loader.h"

#include <dirent.h>
#include <dlfcn.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "core/builtin_modules.h"
#include "core/log.h"
#include "core/module_registry.h"
#include "platform/fs.h"
#include "platform/platform.h"

namespace {

const char* orNull(const char* text) { return text != nullptr ? text : "(null)"; }

// The built-in modules live for the process, like the library ones; kept here so they
// stay owned (and reachable) whatever happens to the registry.
Module* keepBuiltIn(std::unique_ptr<Module> module) {
    static auto* builtIns = new std::vector<std::unique_ptr<Module>>;
    builtIns->push_back(std::move(module));
    return builtIns->back().get();
}

void skip(const char* fileName, std::string reason) {
    skippedLibraries().push_back({fileName, std::move(reason)});
}

// Loads one library of the folder and registers its module when it passes every test.
void tryLibrary(const char* folder, const char* fileName) {
    auto& loader = *vigild::platform::current().loader;
    LOGD("vd so file found: %s", fileName);

    char path[1024];
    snprintf(path, sizeof(path), "%s%s", folder, fileName);
    void* handle = loader.open(path, RTLD_LAZY);
    if (handle == nullptr) {
        const char* error = orNull(loader.error());
        LOGE("name is %s", fileName);
        LOGE("got an error %s", error);
        skip(fileName, std::string("cannot be opened: ") + error);
        return;
    }

    // Libraries are never closed, also not the refused ones: a module may have left
    // threads or callbacks behind in its constructors.
    LOGD("post open");
    loader.error();  // clear any stale error before the lookup
    void* entry = loader.symbol(handle, "getModule");
    const char* error = loader.error();
    if (entry == nullptr || error != nullptr) {
        LOGE("got an error %s", orNull(error));
        skip(fileName, "no getModule");
        return;
    }

    LOGD("after getModule");
    Module* module = reinterpret_cast<getModuleFn>(entry)();
    if (module == nullptr) {
        LOGE("got an error %s", "getModule returned no module");
        skip(fileName, "getModule returned no module");
        return;
    }
    const char* name = module->getName();
    const char* version = module->getVersion();
    if (name == nullptr || !isBaseVersion(version)) {
        LOGE(
            "Module: %s is using a different base version and cannot be loaded. Needed base "
            "version %sX.X, actual version %s",
            orNull(name), kBaseVersion, orNull(version));
        skip(fileName, name == nullptr ? "no module name"
                                       : std::string("version ") + orNull(version) +
                                             " is not of base " + kBaseVersion);
        return;
    }

    if (module->shouldLoad() != 0) {
        LOGI("Module: %s is present but not loaded based off of the module determination", name);
        skip(fileName, std::string(name) + ": shouldLoad() declined");
        return;
    }
    moduleRegistry.emplace_back(module);
    LOGD("Post create");
}

}  // namespace

std::vector<SkippedLibrary>& skippedLibraries() {
    static auto* skipped = new std::vector<SkippedLibrary>;
    return *skipped;
}

bool isBaseVersion(const char* version) {
    return version != nullptr && strncmp(version, kBaseVersion, strlen(kBaseVersion)) == 0;
}

int buildModuleRegistry(const char* folder) {
    skippedLibraries().clear();
    moduleRegistry.emplace_back(keepBuiltIn(std::make_unique<VigildModule>()));

    DIR* dir = vigild::fs::opendir(folder);
    if (dir == nullptr) {
        LOGE("Error trying to open %s", folder);
        return 1;
    }
    while (struct dirent* entry = readdir(dir)) {
        if (strncmp(entry->d_name, kLibraryPrefix, strlen(kLibraryPrefix)) != 0) continue;
        tryLibrary(folder, entry->d_name);
    }
    closedir(dir);

    // Library modules by name, behind the daemon's own settings; equal names keep the order
    // the folder gave them.
    std::stable_sort(moduleRegistry.begin() + 1, moduleRegistry.end(),
                     [](const modulePair& a, const modulePair& b) {
                         return strcmp(a.settings.moduleName, b.settings.moduleName) < 0;
                     });
    // QuickTap goes last, after the sort, whatever the library modules are called.
    moduleRegistry.emplace_back(keepBuiltIn(std::make_unique<QuickTapModule>()));

    Module::moduleConfig* lts = nullptr;
    for (modulePair& entry : moduleRegistry) {
        LOGD("vd so loaded init them: %s", entry.settings.moduleName);
        entry.module->init(entry.settings);
        if (entry.settings.moduleName != nullptr &&
            strcmp(entry.settings.moduleName, "LTSModule") == 0) {
            lts = &entry.settings;
        }
    }
    if (lts != nullptr) {
        for (modulePair& entry : moduleRegistry) entry.module->ltsSettings = lts;
    }
    return 0;
}
