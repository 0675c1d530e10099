// Where logs live: the storage root ("/sdcard/" or a card under "/storage/"), the layout
// below it (normal or secure) and each module's log folder.
#pragma once

#include <string>

// Top folder below the root in the normal layout.
constexpr const char* kTellwickFolder = "Tellwick/";
// Top folder below the root in the secure layout.
constexpr const char* kSecureLogFolder = "Android/data/com.tandril.tellwick/Tellwick/secure/log_data/";
// The configuration file below the root.
constexpr const char* kConfigFileName = "Tellwick/config.json";

// The storage root, ending in "/". Resolved afresh on each call (it may create folders,
// remove the other layout and write "persist.sys.vd.storage_path"); never empty. The
// process-wide buffers behind it are guarded by a lock of their own; the result is a copy.
std::string getDefaultDirectory();
// root + layout folder + the module's sub-folder.
std::string returnCorrectedLogPath(const std::string& moduleName);
// The same under a root the caller resolved already (so it can hold configMutex meanwhile).
std::string returnCorrectedLogPath(const std::string& moduleName, const std::string& root);
// First card folder under "/storage/" named like 1A2B-3C4D; `path` gets it without a
// trailing "/".
bool isExternalSDCardPresentAndReturnPath(std::string& path);
// Whole path matches "^(/sdcard/|/storage/).*".
bool startsWithSdcardOrStorage(const std::string& path);
// The file exists, or the path is under "/storage" and a card shows up within five tries.
bool isFileExistsExtSDcard(const std::string& path);
// Questions put to the companion service.
bool isSDCARD_present();
std::string getSDCARD_path();
bool isTellwickSecureModeEnabled();
bool isInternalSDcardEnabledLogging();
bool isDeviceAlder();
