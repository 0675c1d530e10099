#include "quicktap/quicktap.h"

#include <charconv>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "core/log.h"
#include "core/thread_annotations.h"
#include "platform/platform.h"
#include "quicktap/quicktap_state.h"
#include "storage/storage_root.h"
#include "storage/utility.h"

namespace {

constexpr const char* kModuleTimeProp = "persist.sys.vd.quick_tap_module_time";
constexpr int kDefaultCombination = 22;

using vigild::quicktap::state::gTable;
using vigild::quicktap::state::gTableMutex;

void appendRowsLocked() REQUIRES(gTableMutex) {
    static const char* const kNames[] = {
        "audio",
        "audio_battery",
        "audio_bluetooth",
        "audio_cellular",
        "audio_scanner",
        "audio_wifi",
        "battery",
        "battery_bluetooth",
        "battery_cellular",
        "battery_scanner",
        "battery_wifi",
        "bluetooth",
        "bluetooth_cellular",
        "bluetooth_scanner",
        "bluetooth_wifi",
        "cellular",
        "cellular_scanner",
        "cellular_wifi",
        "scanner",
        "scanner_wifi",
        "wifi",
        "default",
    };
    int32_t number = 1;
    for (const char* name : kNames) gTable.push_back({name, number++});
}

// Decimal text as a whole, in int range; never throws.
bool parseDecimal(const std::string& text, int& out) {
    if (text.empty()) return false;
    const char* end = text.data() + text.size();
    auto [ptr, ec] = std::from_chars(text.data(), end, out, 10);
    return ec == std::errc() && ptr == end;
}

bool isAllDigits(const std::string& text) {
    if (text.empty()) return false;
    size_t start = text[0] == '-' ? 1 : 0;
    if (start == text.size()) return false;
    for (size_t i = start; i < text.size(); i++) {
        if (text[i] < '0' || text[i] > '9') return false;
    }
    return true;
}

std::string readModuleTime() {
    char value[vigild::platform::kPropValueMax];
    getprop(value, kModuleTimeProp, "UNKNOWN");
    return value;
}

// The combination number of the property's head: the number itself, or the number of a
// combination named there: the property is written both as "bluetooth_2" (name, duration
// index) and as "12_3600" (number, seconds). `fallback` stands for an unusable head.
int combinationNumber(const std::string& head, int fallback) {
    if (isAllDigits(head)) {
        int number;
        if (parseDecimal(head, number)) return number;
        LOGE("QuickTap::module number out of range: %s", head.c_str());
        return fallback;
    }
    vigild::Lock lock(gTableMutex);
    if (gTable.empty()) appendRowsLocked();
    for (const QuickTapKeyValuePair& row : gTable) {
        if (row.key == head) return row.value;
    }
    LOGE("QuickTap::unknown module key: %s", head.c_str());
    return kDefaultCombination;
}

}  // namespace

bool isTwQuickTapModeEnabled() {
    char value[vigild::platform::kPropValueMax];
    getprop(value, "persist.sys.vd.quick_tap", "UNKNOWN");
    return strcmp(value, "true") == 0;
}

int getQuickTapTimerFromProp() {
    std::string value = readModuleTime();
    size_t underscore = value.rfind('_');
    if (underscore == std::string::npos) return 0;
    std::string tail = value.substr(underscore + 1);
    int timer;
    if (!parseDecimal(tail, timer)) {
        LOGE("QuickTap::timer is not a number: %s", value.c_str());
        return 0;
    }
    return timer;
}

int getQuickTapModFromProp() {
    std::string value = readModuleTime();
    size_t underscore = value.rfind('_');
    if (underscore == std::string::npos) return 0;
    return combinationNumber(value.substr(0, underscore), 0);
}

std::string returnQuickTapModuleKey(int number) {
    vigild::Lock lock(gTableMutex);
    if (gTable.empty()) appendRowsLocked();
    for (const QuickTapKeyValuePair& row : gTable) {
        if (row.value == number) return row.key;
    }
    return "default";
}

void createQuickTapKeyValue() {
    vigild::Lock lock(gTableMutex);
    appendRowsLocked();
}

std::string copyQuickTapConfigFilePath() {
    std::string value = readModuleTime();
    size_t underscore = value.rfind('_');
    std::string head = underscore == std::string::npos ? value : value.substr(0, underscore);
    if (underscore == std::string::npos && (value.empty() || value == "UNKNOWN")) head = "22";
    std::string name = returnQuickTapModuleKey(combinationNumber(head, kDefaultCombination));

    std::string root = getDefaultDirectory();
    char path[1024];
    snprintf(path, sizeof(path), "%s%s%s%s", root.c_str(), "Tellwick/quicktap/", name.c_str(),
             "/config.json");
    std::string source = trim(path);
    std::string destination = root + kConfigFileName;
    if (copyFile(source, destination)) {
        LOGI("QuickTap::File copied successfully at destination");
    } else {
        LOGE("QuickTap::File copied failed");
    }
    return path;
}

std::vector<QuickTapKeyValuePair> quickTapTable() {
    vigild::Lock lock(gTableMutex);
    return gTable;
}

namespace vigild::quicktap::state {
vigild::Mutex gTableMutex;
std::vector<QuickTapKeyValuePair> gTable;
}  // namespace vigild::quicktap::state
