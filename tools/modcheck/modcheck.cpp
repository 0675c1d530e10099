#include "modcheck/modcheck.h"

#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "config/config_validation.h"
#include "config/document.h"
#include "core/module_loader.h"
#include "core/module_registry.h"
#include "modcheck/scratch_device.h"
#include "platform/fs.h"

namespace vdtools {
namespace {

constexpr const char* kEnableModule = "Enable Module";

std::string quoted(const char* text) { return "\"" + std::string(text) + "\""; }

// The bounded view of a value buffer: a value that fills all 256 bytes has no terminator.
bool fitsBuffer(const char (&value)[VD_CONFIG_VALUE_SIZE]) {
    return strnlen(value, VD_CONFIG_VALUE_SIZE) < VD_CONFIG_VALUE_SIZE;
}

bool isBoolean(const char* text) { return strcmp(text, "true") == 0 || strcmp(text, "false") == 0; }

// The daemon's own int test: atoi's text must be as long as the value ("12" passes, "12a",
// "+5", "05" and "" do not).
bool fitsInt(const char* text) {
    char buffer[22];
    snprintf(buffer, sizeof(buffer), "%i", atoi(text));
    return strlen(buffer) == strlen(text);
}

bool isIndexOf(const char* text, size_t optionCount) {
    if (*text == '\0' || strlen(text) > 9) return false;
    for (const char* p = text; *p != '\0'; ++p) {
        if (*p < '0' || *p > '9') return false;
    }
    if (text[0] == '0' && text[1] != '\0') return false;
    return static_cast<size_t>(atoi(text)) < optionCount;
}

bool isPathSetting(const Module::config& c) {
    return (strcasecmp(c.name, "Log Path") == 0 || strcasecmp(c.name, "Storage Directory") == 0) &&
           strcasecmp(c.type, "string") == 0;
}

bool isFolder(const char* text) {
    size_t n = strlen(text);
    return n >= 2 && text[0] == '/' && text[n - 1] == '/';
}

// Checks value and default of one setting whose name, type and buffers are sound.
void checkValues(const Module::config& c, std::vector<std::string>& faults) {
    const std::string name = quoted(c.name);
    const std::pair<const char*, const char*> both[] = {{"value", c.value},
                                                        {"default", c.defaultValue}};
    for (const auto& [what, text] : both) {
        if (strcmp(c.type, "boolean") == 0 && !isBoolean(text)) {
            faults.push_back("boolean " + name + " has " + what + " " + quoted(text) +
                             ", not \"true\" or \"false\"");
        } else if (strcmp(c.type, "int") == 0 && !fitsInt(text)) {
            faults.push_back("int " + name + " has " + what + " " + quoted(text) +
                             ", which is not plain decimal text");
        } else if (strcmp(c.type, "list") == 0 && !isIndexOf(text, c.options.size())) {
            faults.push_back("list " + name + " has " + what + " " + quoted(text) +
                             ", which is not an index of its " + std::to_string(c.options.size()) +
                             " options");
        } else if (isPathSetting(c) && !isFolder(text)) {
            faults.push_back(name + " has " + what + " " + quoted(text) +
                             ", which is not a folder (an absolute path ending in \"/\")");
        }
    }
}

// Turns the loader's refusal lines into findings.
void explainRefusal(const std::vector<std::string>& errors, const std::vector<CapturedLine>& all,
                    size_t from, std::vector<std::string>& faults) {
    const size_t before = faults.size();
    bool openFailed = false;
    for (const std::string& line : errors) {
        static const std::string kGotError = "got an error ";
        static const std::string kWrongBase = "is using a different base version";
        static const std::string kActual = "actual version ";
        if (line.rfind("name is ", 0) == 0) {
            openFailed = true;
        } else if (line.rfind(kGotError, 0) == 0) {
            std::string detail = line.substr(kGotError.size());
            if (openFailed) {
                faults.push_back("cannot be loaded: " + detail);
            } else if (detail == "getModule returned no module") {
                faults.push_back("getModule() returned no module");
            } else {
                faults.push_back("no getModule: " + detail);
            }
        } else if (line.find(kWrongBase) != std::string::npos) {
            size_t at = line.find(kActual);
            std::string version = at == std::string::npos ? "?" : line.substr(at + kActual.size());
            if (line.rfind("Module: (null) ", 0) == 0) {
                faults.push_back("getName() returned null");
            } else {
                faults.push_back("wrong base version: " + quoted(version.c_str()) +
                                 " does not begin with " + quoted(kBaseVersion));
            }
        } else {
            faults.push_back("daemon: " + line);
        }
    }
    for (size_t i = from; i < all.size(); ++i) {
        if (all[i].text.find("is present but not loaded based off of the module determination") !=
            std::string::npos) {
            faults.push_back(
                "shouldLoad() refuses: it returned non-zero, so the daemon leaves "
                "the module out");
        }
    }
    if (faults.size() == before) faults.push_back("the daemon did not register the module");
}

}  // namespace

std::string fixFor(const std::string& finding) {
    static const std::pair<const char*, const char*> kFixes[] = {
        {"file name does not begin", "name the library lib_vd_<name>.so"},
        {"cannot be loaded", "build it for this machine and check its dependencies with ldd"},
        {"cannot be read", "give a readable path to the library"},
        {"no getModule",
         "export extern \"C\" Module* getModule() with default visibility (see the template)"},
        {"returned no module", "return a module object that lives for the whole process"},
        {"getName()", "return a non-empty string literal from getName()"},
        {"wrong base version", "make getVersion() return a text that begins with \"14.0.\""},
        {"shouldLoad() refuses", "return 0 from shouldLoad() where the module should run"},
        {"is taken by a module built", "give the module a name of its own"},
        {"duplicate setting", "give every setting a name of its own"},
        {"Enable Module",
         "leave \"Enable Module\" to the daemon: it adds it first; add your settings after it"},
        {"unknown type",
         "declare settings with addConfigInt, addConfigBoolean, addConfigList or "
         "addConfigString"},
        {"has no name", "declare settings with the add helpers, which set name and type"},
        {"has no type", "declare settings with the add helpers, which set name and type"},
        {"256 bytes or more", "keep every value and default under 256 bytes"},
        {"null option", "give every list option a text"},
        {"not \"true\" or \"false\"", "a boolean is \"true\" or \"false\""},
        {"plain decimal text", "write an int as plain decimal text, such as \"64\""},
        {"not an index", "a list value is the index of an option, from \"0\""},
        {"not a folder",
         "use an absolute folder that ends in \"/\", such as "
         "\"/sdcard/Tellwick/<module>/\""},
        {"validation refuses", "fix the settings so that the daemon's defaults pass its check"},
        {"configVal objects", "make configVal accept the module's own defaults"},
    };
    for (const auto& [pattern, fix] : kFixes) {
        if (finding.find(pattern) != std::string::npos) return fix;
    }
    return "";
}

std::vector<std::string> checkSettings(const Module::moduleConfig& settings) {
    std::vector<std::string> faults;
    const auto& configs = settings.configs;
    if (configs.empty() || configs[0].name == nullptr || strcmp(configs[0].name, kEnableModule)) {
        faults.push_back(configs.empty() ? "has no settings: \"Enable Module\" must come first"
                                         : "\"Enable Module\" is not the first setting");
    } else if (configs[0].type == nullptr || strcmp(configs[0].type, "boolean") != 0) {
        faults.push_back("\"Enable Module\" is not of type \"boolean\"");
    }

    for (size_t i = 0; i < configs.size(); ++i) {
        const Module::config& c = configs[i];
        if (c.name == nullptr || c.type == nullptr) {
            faults.push_back("setting " + std::to_string(i) + " has no " +
                             (c.name == nullptr ? "name" : "type"));
            continue;
        }
        const std::string name = quoted(c.name);
        for (size_t j = 0; j < i; ++j) {
            if (configs[j].name != nullptr && strcmp(configs[j].name, c.name) == 0) {
                faults.push_back("duplicate setting name " + name + " (settings " +
                                 std::to_string(j) + " and " + std::to_string(i) + ")");
                break;
            }
        }
        if (strcmp(c.type, "int") != 0 && strcmp(c.type, "boolean") != 0 &&
            strcmp(c.type, "list") != 0 && strcmp(c.type, "string") != 0) {
            faults.push_back("setting " + name + " has unknown type " + quoted(c.type));
            continue;
        }
        bool buffersFit = true;
        if (!fitsBuffer(c.value)) {
            faults.push_back("setting " + name + " has a value of 256 bytes or more");
            buffersFit = false;
        }
        if (!fitsBuffer(c.defaultValue)) {
            faults.push_back("setting " + name + " has a default of 256 bytes or more");
            buffersFit = false;
        }
        bool optionsPresent = true;
        for (const char* option : c.options) optionsPresent = optionsPresent && option != nullptr;
        if (!optionsPresent) faults.push_back("list " + name + " has a null option");
        // A mistyped "Enable Module" is reported once, above.
        const bool badEnable =
            i == 0 && strcmp(c.name, kEnableModule) == 0 && strcmp(c.type, "boolean") != 0;
        if (buffersFit && optionsPresent && !badEnable) checkValues(c, faults);
    }
    return faults;
}

ModuleReport checkModuleLibrary(const std::string& hostLibrary) {
    ModuleReport report;
    std::string file = hostLibrary.substr(hostLibrary.find_last_of('/') + 1);
    if (file.rfind(kLibraryPrefix, 0) != 0) {
        report.faults.push_back("file name does not begin with " + quoted(kLibraryPrefix) +
                                ": the daemon never looks at it");
        file = kLibraryPrefix + file;  // checked under a name the loader takes
    }
    const std::string folder = kLibraryFolder;
    if (!makeDeviceDirs(folder) || !makeDeviceDirs("/sdcard/") ||
        !copyToDevice(hostLibrary, folder + file)) {
        report.faults.push_back("cannot be read: " + std::string(strerror(errno)));
        return report;
    }

    LogCapture capture(false);
    moduleRegistry.clear();
    buildModuleRegistry(folder.c_str());
    vigild::fs::unlink((folder + file).c_str());

    // VigildModule first and QuickTapModule last: a library module sits in between.
    if (moduleRegistry.size() != 3) {
        // Name the library as the user gave it, not its scratch copy.
        std::vector<std::string> errors = capture.errorsSince(0);
        const std::string copy = vigild::fs::hostPath(folder + file);
        for (std::string& line : errors) {
            for (size_t at = 0; (at = line.find(copy, at)) != std::string::npos;) {
                line.replace(at, copy.size(), hostLibrary);
                at += hostLibrary.size();
            }
        }
        explainRefusal(errors, capture.lines(), 0, report.faults);
        return report;
    }
    modulePair& entry = moduleRegistry[1];
    report.loaded = true;
    report.name = entry.settings.moduleName;
    report.version = entry.module->getVersion();
    report.settingCount = entry.settings.configs.size();
    if (report.name.empty()) {
        report.faults.push_back("getName() is empty");
    } else if (report.name == moduleRegistry[0].settings.moduleName ||
               report.name == moduleRegistry[2].settings.moduleName) {
        report.faults.push_back("module name " + quoted(report.name.c_str()) +
                                " is taken by a module built into the daemon");
    }

    std::vector<std::string> settingFaults = checkSettings(entry.settings);
    report.faults.insert(report.faults.end(), settingFaults.begin(), settingFaults.end());

    // With the settings sound, the daemon's own validation must take the default document:
    // otherwise a reset to defaults could never succeed.
    if (report.faults.empty()) {
        size_t from = capture.lines().size();
        char* text = getConfig();
        int rc = text == nullptr ? -1 : validateConfig(text);
        free(text);
        if (rc != 0) {
            std::vector<std::string> why = capture.errorsSince(from);
            report.faults.push_back("the daemon's validation refuses the default configuration" +
                                    (why.empty() ? std::string() : ": " + why.back()));
        }
    }

    std::vector<std::string> errors;
    entry.module->configVal(entry.settings, errors);
    for (size_t i = 0; i + 1 < errors.size(); i += 2) {
        report.objections.push_back("configVal objects to the default of " +
                                    quoted(errors[i].c_str()) + ": " + errors[i + 1]);
    }
    return report;
}

}  // namespace vdtools
