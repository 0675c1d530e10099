#include "fakes/fake_module.h"

#include <cstdio>
#include <cstring>
#include <utility>

namespace vigild::testing {

Module::config makeSetting(const char* name, const char* type, const char* value,
                           std::vector<const char*> options) {
    Module::config c = {};
    c.name = name;
    c.type = type;
    snprintf(c.defaultValue, sizeof(c.defaultValue), "%s", value);
    snprintf(c.value, sizeof(c.value), "%s", value);
    c.options = std::move(options);
    return c;
}

modulePair& registerModule(Module& module, const char* enable) {
    modulePair& entry = moduleRegistry.emplace_back(&module);
    snprintf(entry.settings.configs[0].value, sizeof(entry.settings.configs[0].value), "%s",
             enable);
    return entry;
}

Module::config& setting(size_t entry, size_t index) {
    return moduleRegistry[entry].settings.configs[index];
}

FakeModule& FakeModules::add(const std::string& name, const char* enable) {
    modules_.push_back(std::make_unique<FakeModule>(name));
    registerModule(*modules_.back(), enable);
    return *modules_.back();
}

}  // namespace vigild::testing
