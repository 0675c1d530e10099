#include "core/builtin_modules.h"

#include <cstring>

#include "core/debug_singleton.h"
#include "core/log.h"
#include "service/ivd_service.h"
#include "storage/utility.h"

namespace {
char* boolWord(int on) { return const_cast<char*>(on ? "true" : "false"); }
}  // namespace

int VigildModule::init(moduleConfig& settings) {
    // The daemon has nothing to start, so it drops the "Enable Module" it was given and
    // the run-state loops pass it by.
    settings.configs.clear();
    addConfigBoolean(settings, "Enable notifications", boolWord(1));
    addConfigBoolean(settings, "Enable debug logs", boolWord(0));
    addConfigBoolean(settings, "Enable internal sdcard only",
                     boolWord(debugSingleton::getInstance().internalSd.load()));
    return 0;
}

int VigildModule::configVal(moduleConfig& settings, std::vector<std::string>& errors) {
    (void)errors;
    int value = 0;
    if (getConfigBoolean(settings, "Enable debug logs", value) == 0) {
        // Only the property changes: the switch is read once per process, so the new
        // value takes effect at the next start.
        addConfigBoolean(settings, "Enable debug logs", boolWord(value));
        setprop("persist.sys.vd.debug_log", boolWord(value));
    }

    sp<Ivd_service> service = Ivd_service::getInterface();
    if (service == nullptr) {
        LOGE("Failed to obtain a handle on vd_service");
    } else if (getConfigBoolean(settings, "Enable notifications", value) == 0) {
        service->enableNotification(value != 0);
    }

    if (getConfigBoolean(settings, "Enable internal sdcard only", value) == 0) {
        debugSingleton::getInstance().internalSd = value != 0;
        addConfigBoolean(settings, "Enable internal sdcard only", boolWord(value));
        setprop("persist.sys.vd.internal_sd", boolWord(value));
    }
    return 0;
}
