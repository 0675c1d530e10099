// The device report sent on "fresh_connect": versions, configuration, run state.
#pragma once

#include "vigild_version.h"

// The daemon's own component name and version in the report.
constexpr const char* kDaemonName = "vigild";
constexpr const char* kDaemonVersion = VIGILD_VERSION;

void sendInfo();
