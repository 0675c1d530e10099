// Shell, property, string and file helpers used by every subsystem. Paths are device paths.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// property_get: copies the value (or `defaultValue` when unset or empty) into `value`, which
// holds at least vigild::platform::kPropValueMax bytes; returns its length.
int getprop(char* value, const char* key, const char* defaultValue);
// property_set: 0 or -1.
int setprop(const char* key, const char* value);

// Runs a shell command and returns the rest of the last output line holding "public:179"
// (from that text on), or an empty string.
std::string ExecuteCommandToString(const char* command);

// The whole file as a new[] zero-terminated array (the caller delete[]s it). Refuses what is
// not a regular file and files over kFileReaderLimit bytes with an error line; on any
// failure returns an empty zero-terminated array. Never null.
constexpr size_t kFileReaderLimit = 16 * 1024 * 1024;
char* fileReader(const char* path);

// Splits `text` at `separator` into `out` (emptied first); empty pieces dropped when `skip`.
void createVector(const std::string& text, char separator, std::vector<std::string>& out,
                  bool skip);
// The prefix of `text` up to and including the n-th `pattern`, searching from index 1;
// "UNKNOWN" when there are fewer; the first character when n < 1.
std::string substrNthPlace(const std::string& text, const std::string& pattern, int32_t n);
// Strips blanks, tabs and newlines (not carriage returns) at both ends.
std::string trim(const std::string& text);
// The part of `text` after the first `pattern`, or "" (with an error line).
std::string truncateFromSubstring(const std::string& text, const std::string& pattern);

// Byte-exact copy of a regular file into a new file renamed over the destination once it is
// complete, so the destination is never torn; no link on the way to it is followed.
bool copyFile(const std::string& source, const std::string& destination);
// mkdir -p with mode 0777; 0 or -1 with errno set (ENAMETOOLONG for 4096 bytes or more).
int mkdir_all(const char* path);
// Removes a tree depth first without following symlinks (a link is removed as a link).
// Returns the count of failed removals below the path, or -1 when it is not a directory.
int remove_all(const char* path);
// False for a log folder value that could lead elsewhere or hide what it names: a ".."
// component, control bytes, invisible or zero-width characters, or blanks at either end of
// a component.
bool isCleanLogPath(const std::string& value);
// True when the file opens for reading.
bool isFileExists(const std::string& path);
// True on a debuggable build ("ro.debuggable" starts with '1') or with the debug switch on.
bool isDebugBuildorDebugEnabled();
// value > a || value <= b, exactly so.
bool isNumberInRange(int32_t value, int32_t a, int32_t b);
