// Merging a configuration file into the settings by name, with the QuickTap properties.
#pragma once

// 0 nothing changed, 1 something changed or was missing, -1 the file does not fit.
int makeUpdateConfig(const char* text);
