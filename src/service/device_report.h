// The device report sent on "fresh_connect": versions, configuration, run state.
#pragma once

// The daemon's own component name and version in the report.
constexpr const char* kDaemonName = "vigild";
constexpr const char* kDaemonVersion = "14.0.15.19";

void sendInfo();
