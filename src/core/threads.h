// Which thread runs what, and what guards what. Read this before adding a lock or a thread.
//
// Threads (all started by vigildMain, none detached):
//   main                   start-up in order, then joins everything; runs the auto-start.
//   systemTimeCheker       one pass at start-up (also "refresh_time" on the command thread).
//   syncServiceState       one pass at start-up (also "refresh_state").
//   watchConfig            one pass at start-up (also "refresh_config").
//   monitorEOF             60-second poll of "LogcatModule"; restarts it on end-of-file.
//   watchConfigFileChange  5-second poll of the inotify watch on the deployed files.
//   generateBugreport      30-second poll of "persist.sys.vd.tw_bugreport"; runs the tool.
//   messageHandler         the command loop: one command at a time, blocking in the service.
//
// Locks, in the only order they may nest (outer first):
//   transitionMutex (core/run_state.cpp, recursive)
//       Serialises run-state transitions: start, stop, restartModules, the end-of-file
//       restart, the clock-jump notice. Held across the module calls and the state reports of
//       one transition (that is what it serialises); each transition re-checks runState
//       under it, so one that loses a race does nothing.
//   gRootMutex (storage/storage_root.cpp)
//       The buffers of getDefaultDirectory. Held for one resolution, which may ask the
//       service, run a shell command and settle a layout: never taken under configMutex.
//       Callers resolve the root first and hand it to getConfig(root).
//   configMutex (config/document.h)
//       Every module's settings, the kept document text (config/document.cpp) and each
//       build of the document followed by a save. Never held across a binder call, a child
//       process or a tree walk: the document is built under it and sent after it is
//       released. A save under it writes one file through the storage walker (a new file
//       beside the old one, synced and renamed), which is bounded work, not a walk.
//   gOwnMutex (storage/tree.cpp)
//       The identities of the files the daemon itself renamed into place, held across the
//       rename so the file watch never sees the new file before it is known as the daemon's.
//   startedMutex (core/core_state.h), gTableMutex (quicktap), debugMutex (core/core_state.h)
//       Leaf locks around a few values; nothing is called while they are held.
//
// Without a lock:
//   runState, exitRequested, quickTapModeAtStart, modulePair::restartNeeded: atomics.
//   restartNeeded is set by the configuration code on any thread and taken once (exchange)
//   by restartModules, so a mark set during a restart waits for the next one.
//   moduleRegistry: filled before any thread starts and never resized; module names, setting
//   names and types are fixed after init(), so walking them needs no lock.
//   restartAfterPathChange: per thread (set and consumed within one thread's call chain).
//   lastCommand: the command thread's alone.
//   The installed platform (platform/platform.h): installed before any thread starts and
//   never replaced while they run; its members guard their own state.
#pragma once
