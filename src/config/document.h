// The configuration document: the registry's settings as one JSON text.
#pragma once

#include <string>

#include "core/thread_annotations.h"

// Guards every module's settings and every build of the document that is followed by a file
// write or a send. Never hold it across a binder call, a child process or a tree walk, nor
// across a function that takes it itself (sendConfig does). Taken after the run-state
// transition lock, never before it.
extern vigild::Mutex configMutex;

// Builds the document from the registry (json_dumps, flags 0). The caller free()s the
// text. May move "Log Path"/"Storage Directory" values into the current storage root.
// Null only when json_dumps fails. All JSON values are released before it returns.
// Resolves the storage root, then builds under configMutex (for tools and tests; the
// daemon's own callers hold the lock and use the overload with a resolved root).
char* getConfig() EXCLUDES(configMutex);
// The same with the storage root resolved by the caller before taking configMutex. The path
// checks run every time; the text is built again only when some module name, setting or
// option differs from what the last build read, otherwise the kept text is copied.
char* getConfig(const std::string& root) REQUIRES(configMutex);
// What getConfig(root) returns, always built afresh (getConfig keeps the last text and
// returns it while the settings it was built from are unchanged). For tests and benchmarks.
char* buildConfigUncached(const std::string& root) REQUIRES(configMutex);
// The root a build needs: resolved only when some module has a path setting ("" otherwise,
// so a registry without one asks the storage nothing).
std::string storageRootForDocument() EXCLUDES(configMutex);
// Releases what a build left behind (nothing: getConfig keeps no values).
void decrefJson();
// Builds the document under configMutex and sends it to the companion service.
void sendConfig() EXCLUDES(configMutex);
