#include <vector>

#include "core/builtin_modules.h"

int QuickTapModule::init(moduleConfig& settings) {
    // Registration enabled every module; QuickTap stays off until the configuration says so.
    char enable[] = "false";
    addConfigBoolean(settings, "Enable Module", enable);
    char selected[] = "0";
    addConfigInt(settings, "Select Module", selected);
    addConfigList(settings, "Log Duration (sec)", {"0", "1800", "3600", "7200", "10800", "14400"});
    return 0;
}
