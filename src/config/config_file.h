// The configuration file below the storage root, defaults and log path upkeep.
#pragma once

#include <atomic>
#include <string>

// Set when updateConfigDefault moved a log path; read and cleared by loadConfigFile.
extern thread_local bool restartAfterPathChange;

// Writes `text` to `path` without losing the last good file to a kill or a full disk; the
// file keeps its inode. A null text writes nothing. Callers hold configMutex.
void saveFile(const char* path, const char* text);
// Puts back the copy an interrupted saveFile left beside `path`; takes configMutex itself.
// Returns the file to read: `path`, or the copy when it could not be put back (a full disk).
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
// Clears restartAfterPathChange (tests).
void resetConfigFileForTesting();
