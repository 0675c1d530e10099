// vigild-modcheck: loads a module library through the daemon's own loader and reports what
// would stop it loading or would break the configuration.
#pragma once

#include <string>
#include <vector>

#include "vigild/module.h"

namespace vdtools {

struct ModuleReport {
    bool loaded = false;  // the daemon's loader registered it
    std::string name;     // getName(), when loaded
    std::string version;  // getVersion(), when loaded
    size_t settingCount = 0;
    // One line each: what stops the module loading or breaks the configuration.
    std::vector<std::string> faults;
    // One line each: the module's own objections (configVal) to its default settings.
    std::vector<std::string> objections;

    bool sound() const { return loaded && faults.empty() && objections.empty(); }
};

// What checkModuleLibrary looks at, in order, for the tool to say so.
constexpr const char* kChecksMade =
    "file name, loading (dlopen, getModule), base version \"14.0.\", shouldLoad(), module name, "
    "settings (order, names, types, values), the default document through the daemon's "
    "validation, configVal on the defaults";

// What to change in the module's source for a fault or objection of checkModuleLibrary.
std::string fixFor(const std::string& finding);

// The faults in a module's settings after init(): "Enable Module" first and boolean, names
// unique and present, known types, values and defaults that fit their buffers and types, list
// values that index their options, "Log Path"/"Storage Directory" values that are folders.
std::vector<std::string> checkSettings(const Module::moduleConfig& settings);

// Checks one library (a host path) on the installed backend, whose device root must hold no
// other module library: the library is copied into "/system/lib64/", the registry is built
// with buildModuleRegistry, the settings are checked, the default document is put through the
// daemon's validation and configVal is run on the defaults. Empties the module registry
// first. A library that crashes the loader crashes the caller: the tool runs each check in a
// child process.
ModuleReport checkModuleLibrary(const std::string& hostLibrary);

}  // namespace vdtools
