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
// Resolves the storage root itself: call it without configMutex held when the document's
// path checks may need a fresh root; under the lock use the overload with a resolved root.
char* getConfig();
// The same with the storage root resolved by the caller before taking configMutex.
char* getConfig(const std::string& root) REQUIRES(configMutex);
// The root a build needs: resolved only when some module has a path setting ("" otherwise,
// so a registry without one asks the storage nothing).
std::string storageRootForDocument();
// Releases what a build left behind (nothing: getConfig keeps no values).
void decrefJson();
// Builds the document under configMutex and sends it to the companion service.
void sendConfig() EXCLUDES(configMutex);
