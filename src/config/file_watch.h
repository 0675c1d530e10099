// The watch on deployed configuration files.
#pragma once

#include <cstdint>
#include <string>

constexpr uint32_t kInternalWatchMask = 0x608; // IN_CLOSE_WRITE | IN_DELETE | IN_DELETE_SELF
constexpr uint32_t kExternalWatchMask = 0x600; // IN_DELETE | IN_DELETE_SELF
constexpr uint32_t kReactionMask = 0x602;      // IN_MODIFY | IN_DELETE | IN_DELETE_SELF
constexpr size_t kWatchReadSize = 272;

// Thread body: polls the inotify descriptor every 5 seconds until exitRequested is set.
void watchConfigFileChange();
int addFileObserver(std::string& internalPath, std::string& externalPath, int& fd,
                    int& internalWatch, int& externalWatch);
// Reload after a change outside secure mode ("refresh_config" too).
void watchConfig();
void refreshConfigFileSecureMode();
// The service's answer to isUserValidToDeploy; 0 (not granted) without a service.
int isPermissionGrantedToDeployConfig();
void updateValidUserStatus(bool valid);
