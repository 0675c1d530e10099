// Building the module registry at start-up.
#pragma once

#include <string>
#include <vector>

// Library folder and the names and versions a module library must have.
constexpr const char* kLibraryFolder = "/system/lib64/";
constexpr const char* kLibraryPrefix = "lib_vd_";
constexpr const char* kBaseVersion = "14.0.";

// Registers VigildModule, loads every acceptable library of `folder` (sorted by name),
// registers QuickTapModule last, calls init() on each and hands out the "LTSModule"
// settings. Returns 1 when the folder cannot be opened (only VigildModule is registered
// then), else 0.
int buildModuleRegistry(const char* folder = kLibraryFolder);
// A library of the folder that was not registered, and why (for the start-up summary).
struct SkippedLibrary {
    std::string file;
    std::string reason;
};
// Filled by buildModuleRegistry; main thread only.
std::vector<SkippedLibrary>& skippedLibraries();
// The version test: "14.0." at the very start of `version` (null fails).
bool isBaseVersion(const char* version);
