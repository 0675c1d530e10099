#include "fakes/fake_module.h"

#include <cstdio>
#include <cstring>
#include <utility>

namespace vigild::testing {

void Journal::add(const std::string& event) {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(event);
}

std::vector<std::string> Journal::events() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
}

void Journal::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.clear();
}

int FakeModule::start(moduleConfig settings) {
    starts++;
    note(name_ + ":start:" + std::to_string(settings.configs.size()));
    return 0;
}

int FakeModule::systemTimeChange() {
    timeChanges++;
    note(name_ + ":time");
    return 0;
}

int FakeModule::prestop() {
    note(name_ + ":prestop");
    return 0;
}

int FakeModule::stop() {
    stops++;
    note(name_ + ":stop");
    return 0;
}

int FakeModule::configVal(moduleConfig&, std::vector<std::string>& errors) {
    judged++;
    errors.insert(errors.end(), objections.begin(), objections.end());
    return 0;
}

int FakeModule::logcatEOFStatus() {
    note(name_ + ":eof?");
    return eof ? 1 : 0;
}

void FakeModule::note(const std::string& event) {
    if (journal_ != nullptr) journal_->add(event);
}

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
