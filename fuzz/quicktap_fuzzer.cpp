// The two QuickTap properties as a user or a tool may have left them: "persist.sys.vd.quick_tap"
// and "persist.sys.vd.quick_tap_module_time" (the input split at the first newline). They are
// parsed, used to pick a prepared configuration, and followed by the rebuild at start-up.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "config/config_rebuild.h"
#include "config/document.h"
#include "core/daemon_state.h"
#include "core/module_registry.h"
#include "fuzz_device.h"
#include "quicktap/quicktap.h"

namespace {

constexpr size_t kPropMax = 91;

bool isDecimal(const std::string& text) {
    if (text.empty() || text.size() > 9) return false;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
    }
    return true;
}

bool isTableKey(const std::string& key) {
    for (const QuickTapKeyValuePair& row : quickTapTable()) {
        if (row.key == key) return true;
    }
    return false;
}

std::string settingValue(const char* module, const char* name) {
    for (modulePair& entry : moduleRegistry) {
        if (std::string(entry.settings.moduleName) != module) continue;
        for (const Module::config& c : entry.settings.configs) {
            if (std::string(c.name) == name) return c.value;
        }
    }
    vdfuzz::fail("no such setting", name);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    vdfuzz::FuzzDevice& device = vdfuzz::FuzzDevice::get();
    device.reset();
    std::string enabled;
    std::string moduleTime;
    vdfuzz::splitInput(data, size, '\n', &enabled, &moduleTime);
    enabled.resize(std::min(enabled.size(), kPropMax));
    moduleTime.resize(std::min(moduleTime.size(), kPropMax));
    // A value cut at a NUL is what the property store would hand back.
    moduleTime = moduleTime.c_str();
    device.setProperty("persist.sys.vd.quick_tap", enabled.c_str());
    device.setProperty("persist.sys.vd.quick_tap_module_time", moduleTime);

    int timer = getQuickTapTimerFromProp();
    int combination = getQuickTapModFromProp();
    isTwQuickTapModeEnabled();
    // "12_3600": both halves read back exactly.
    size_t underscore = moduleTime.rfind('_');
    if (underscore != std::string::npos && isDecimal(moduleTime.substr(0, underscore)) &&
        isDecimal(moduleTime.substr(underscore + 1))) {
        if (combination != atoi(moduleTime.substr(0, underscore).c_str()) ||
            timer != atoi(moduleTime.substr(underscore + 1).c_str())) {
            vdfuzz::fail("number_number misread", moduleTime);
        }
    }

    // The prepared file comes from a folder named after a combination, never from the input.
    device.writeFile("/sdcard/Tellwick/quicktap/bluetooth/config.json", "{}");
    device.writeFile("/sdcard/Tellwick/quicktap/default/config.json", "{}");
    const std::string prefix = "/sdcard/Tellwick/quicktap/";
    const std::string suffix = "/config.json";
    std::string path = copyQuickTapConfigFilePath();
    if (path.rfind(prefix, 0) != 0 || path.size() < prefix.size() + suffix.size() ||
        path.compare(path.size() - suffix.size(), suffix.size(), suffix) != 0 ||
        !isTableKey(path.substr(prefix.size(), path.size() - prefix.size() - suffix.size()))) {
        vdfuzz::fail("prepared file path", path);
    }

    // The start-up rebuild in QuickTap mode: the properties win over the file.
    device.setProperty("persist.sys.vd.quick_tap", enabled.c_str());
    device.setProperty("persist.sys.vd.quick_tap_module_time", moduleTime);
    char* text = getConfig();
    quickTapModeAtStart = 1;
    makeUpdateConfig(text);
    quickTapModeAtStart = 0;
    free(text);
    std::string duration = settingValue("QuickTapModule", "Log Duration (sec)");
    if (!isDecimal(duration) || atoi(duration.c_str()) > 5) {
        vdfuzz::fail("duration index", duration);
    }
    std::string written = device.property("persist.sys.vd.quick_tap_module_time");
    if (written.size() > kPropMax) vdfuzz::fail("property too long", written);
    device.endInput();
    return 0;
}
