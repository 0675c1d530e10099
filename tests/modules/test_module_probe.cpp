#include "test_module_probe.h"

#include <map>
#include <memory>

namespace vdtest {
namespace {

std::mutex gMutex;
// Probes live for the process, like the modules they watch.
std::map<const Module*, std::unique_ptr<Probe>>& probes() {
    static auto* map = new std::map<const Module*, std::unique_ptr<Probe>>;
    return *map;
}
std::vector<Probe*>& registrationOrder() {
    static auto* order = new std::vector<Probe*>;
    return *order;
}
std::vector<Event>& journal() {
    static auto* events = new std::vector<Event>;
    return *events;
}
uint64_t gSequence = 0;

}  // namespace

Probe* registerProbe(Module* m) {
    std::lock_guard<std::mutex> lock(gMutex);
    auto& slot = probes()[m];
    if (!slot) {
        slot = std::make_unique<Probe>(m);
        registrationOrder().push_back(slot.get());
    }
    return slot.get();
}

Probe* probeOf(const Module* m) {
    std::lock_guard<std::mutex> lock(gMutex);
    auto it = probes().find(m);
    return it == probes().end() ? nullptr : it->second.get();
}

Probe* probeNamed(const std::string& name) {
    std::lock_guard<std::mutex> lock(gMutex);
    const auto& order = registrationOrder();
    for (auto it = order.rbegin(); it != order.rend(); ++it) {
        const char* n = (*it)->module->getName();
        if (n != nullptr && name == n) return *it;
    }
    return nullptr;
}

void recordEvent(const char* module, const char* what) {
    std::lock_guard<std::mutex> lock(gMutex);
    journal().push_back(Event{++gSequence, module ? module : "(null)", what});
}

std::vector<Event> events() {
    std::lock_guard<std::mutex> lock(gMutex);
    return journal();
}

std::vector<std::string> eventNames(const std::string& what) {
    std::vector<std::string> out;
    for (const Event& e : events()) {
        if (what.empty() || e.what == what) out.push_back(e.module + ":" + e.what);
    }
    return out;
}

void clearEvents() {
    std::lock_guard<std::mutex> lock(gMutex);
    journal().clear();
}

}  // namespace vdtest
