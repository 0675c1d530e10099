// An in-process module for tests that need the registry filled without loading a library:
// it counts its calls, can write them to a journal and hands out objections and an end-of-file
// answer. Plus small helpers to build setting records and register modules.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "core/module_registry.h"
#include "vigild/module.h"

namespace vigild::testing {

// Events in the order they happened, written from any thread.
class Journal {
  public:
    void add(const std::string& event) {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(event);
    }
    std::vector<std::string> events() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.clear();
    }

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> events_;
};

class FakeModule : public Module {
  public:
    explicit FakeModule(std::string name) : name_(std::move(name)) {}

    int shouldLoad() override { return 0; }
    int init(moduleConfig&) override { return 0; }
    int start(moduleConfig settings) override {
        return note(starts, ":start:" + std::to_string(settings.configs.size()));
    }
    int systemTimeChange() override { return note(timeChanges, ":time"); }
    int prestop() override { return note(prestops, ":prestop"); }
    int stop() override { return note(stops, ":stop"); }
    const char* getName() override { return name_.c_str(); }
    const char* getVersion() override { return "14.0.0.1"; }
    int configVal(moduleConfig&, std::vector<std::string>& errors) override {
        errors.insert(errors.end(), objections.begin(), objections.end());
        return judged++, 0;
    }
    int logcatEOFStatus() override { return note(eofAsked, ":eof?"), eof ? 1 : 0; }

    // Writes "Name:start:N" (N the number of settings it was given), "Name:time",
    // "Name:prestop", "Name:stop" and "Name:eof?" to `journal` (not owned; null for none).
    void journalTo(Journal* journal) { journal_ = journal; }

    std::atomic<int> starts{0}, prestops{0}, stops{0}, timeChanges{0}, judged{0}, eofAsked{0};
    // Appended to the errors of every configVal().
    std::vector<std::string> objections;
    // What logcatEOFStatus() answers: true is 1.
    std::atomic<bool> eof{false};

  private:
    int note(std::atomic<int>& counter, const std::string& event) {
        counter++;
        if (journal_ != nullptr) journal_->add(name_ + event);
        return 0;
    }

    std::string name_;
    Journal* journal_ = nullptr;
};

// A setting record whose value and default are `value` (cut to fit the buffers).
Module::config makeSetting(const char* name, const char* type, const char* value,
                           std::vector<const char*> options = {});

// Appends `module` to moduleRegistry with its "Enable Module" set to `enable`; returns the
// new entry (valid until the registry grows).
modulePair& registerModule(Module& module, const char* enable = "true");

// Setting `index` of registry entry `entry`.
Module::config& setting(size_t entry, size_t index);

// Owns the fake modules of one test, which the registry only points to.
class FakeModules {
  public:
    // Creates a module named `name` and registers it with "Enable Module" at `enable`.
    FakeModule& add(const std::string& name, const char* enable = "true");
    FakeModule& operator[](size_t i) { return *modules_[i]; }

  private:
    std::vector<std::unique_ptr<FakeModule>> modules_;
};

}  // namespace vigild::testing
