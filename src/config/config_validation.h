// Checking a received document against the registry and applying it.
#pragma once

#include <atomic>
#include <string>

// Set by updateConfig when the Bluetooth snoop module is being enabled.
extern std::atomic<bool> btSnoopConfigChanged;

// The format test a received value must pass for its setting's type ("int", "list",
// "boolean"; any text for other types).
bool valueFitsType(const char* type, const char* value);
// 0 when the text fits the registry, -1 (with an error line) otherwise.
int validateConfig(const char* text);
// Copies changed values into the registry by position; survives texts that do not fit.
// Returns 1 when "Enable internal sdcard only" changed (a result of this call alone: the
// command thread and the file watch apply documents at the same time), else 0.
int updateConfig(const char* text);
// Every module judges its settings; with mode 1 the objections go to the service.
int moduleValConfig(int mode);
// Marks enabled modules for restart when no configuration file is at `configPath`.
void moduleRestartNeeded(std::string configPath);
void isBTSnooplogConfigChanged();
// The whole apply sequence. Does not take ownership of `text`.
void setConfig(const char* text);
