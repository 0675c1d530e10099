// The two modules built into the daemon.
#pragma once

#include "vigild/module.h"

// The daemon's own settings ("Tellwick Settings").
class VigildModule : public Module {
public:
    int shouldLoad() override { return 0; }
    int init(moduleConfig& settings) override;
    int start(moduleConfig) override { return 0; }
    int systemTimeChange() override { return 0; }
    int prestop() override { return 0; }
    int stop() override { return 0; }
    const char* getName() override { return "Tellwick Settings"; }
    const char* getVersion() override { return "14.0.0.0"; }
    int configVal(moduleConfig& settings, std::vector<std::string>& errors) override;
    int logcatEOFStatus() override { return 0; }
};

// The one-touch capture settings; init() lives with the QuickTap code.
class QuickTapModule : public Module {
public:
    int shouldLoad() override { return 0; }
    int init(moduleConfig& settings) override;
    int start(moduleConfig) override { return 0; }
    int systemTimeChange() override { return 0; }
    int prestop() override { return 0; }
    int stop() override { return 0; }
    const char* getName() override { return "QuickTapModule"; }
    const char* getVersion() override { return "14.0.1.0"; }
    int configVal(moduleConfig&, std::vector<std::string>&) override { return 0; }
    int logcatEOFStatus() override { return 0; }
};
