// The configuration file below the storage root, defaults and log path upkeep.
#pragma once

#include <atomic>
#include <string>

// Set when updateConfigDefault moved a log path; read and cleared by loadConfigFile.
extern thread_local bool restartAfterPathChange;

// Puts `text` at `path` whole or not at all (a new file renamed over the old one), never
// through a link. A null text writes nothing. Callers hold configMutex.
void saveFile(const char* path, const char* text);
// Puts back the copy a save of an earlier build left beside `path` when it was stopped while
// rewriting the file in place; takes configMutex itself. Returns the file to read: `path`, or
// the copy when it could not be put back.
std::string takeLeftConfigCopy(const char* path);
// 0 when the file is absent, 1 after a full apply, otherwise makeUpdateConfig's result.
int loadConfigFile(const char* path);
// Every setting back to its default and the file rewritten.
void resetAndUpdateConfig();
// Brings path settings in line with the storage root; saves and sends when needed.
void updateConfigDefault(bool force);
std::string persistLogPathUpdate(bool bootLog, std::string value, std::string storageRoot);
// root + "Tellwick/config.json" ("/sdcard/Tellwick/config.json" for "/sdcard/").
std::string configFilePath(const std::string& root);
