// QuickTap: one-touch capture presets chosen through two properties.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct QuickTapKeyValuePair {
    std::string key;
    int32_t value;
};

// "persist.sys.vd.quick_tap" is exactly "true".
bool isTwQuickTapModeEnabled();
// The timer part of "persist.sys.vd.quick_tap_module_time" (after the last "_").
int getQuickTapTimerFromProp();
// The combination number of that property; a key name is looked up in the table.
int getQuickTapModFromProp();
// The combination name of a number; "default" when none matches.
std::string returnQuickTapModuleKey(int number);
// Appends the 22 rows of the table (a second call appends a second copy).
void createQuickTapKeyValue();
// Copies the chosen prepared file over the active configuration file; returns its path.
std::string copyQuickTapConfigFilePath();
// A copy of the table (tests and tools).
std::vector<QuickTapKeyValuePair> quickTapTable();
