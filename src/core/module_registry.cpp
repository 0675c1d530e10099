#include "core/module_registry.h"

std::vector<modulePair> moduleRegistry;

modulePair::modulePair(Module* m) : module(m) {
    settings.configs.clear();
    Module::config enable = {};
    enable.name = "Enable Module";
    enable.type = "boolean";
    strcpy(enable.defaultValue, "true");
    strcpy(enable.value, "true");
    settings.configs.push_back(enable);
    settings.moduleName = m->getName();
}

modulePair::modulePair(modulePair&& other) noexcept
    : module(other.module),
      settings(std::move(other.settings)),
      restartNeeded(other.restartNeeded.load()) {}

modulePair& modulePair::operator=(modulePair&& other) noexcept {
    module = other.module;
    settings = std::move(other.settings);
    restartNeeded.store(other.restartNeeded.load());
    return *this;
}
