// Deleting logs, keeping only one layout on a storage root, and resetting settings.
#pragma once

#include <string>

// "delete_logs": the delete type comes from the companion service (0 without one).
void deleteTwLogs();
// "reset_to_default": every setting back to its default, file rewritten and sent.
void resetToDefault();
void removeSecureLogs(std::string root);
void removeUnsecureLogs(std::string root);
int deleteLogFilesUnsecure(const std::string& folder, int type);
int deleteLogFilesSecure(const std::string& root, int type);
int deleteSecureBackup(const std::string& folder);
int deleteUnsecureLogData(const std::string& folder);
// The whole name matches "^SecureBackup.*\.zip$".
bool isSecureBackupFilePresent(const std::string& name);
bool copyConfigFileToSecurePath(const std::string& source);
