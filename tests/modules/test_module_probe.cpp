#include "test_module_probe.h"

#include <mutex>

namespace vdtest {
namespace {

std::mutex gMutex;
// Probes live for the process, like the modules they watch; newest last.
std::vector<Probe*>& probes() {
    static auto* all = new std::vector<Probe*>;
    return *all;
}
std::vector<std::pair<std::string, std::string>>& journal() {
    static auto* events = new std::vector<std::pair<std::string, std::string>>;
    return *events;
}

}  // namespace

Probe* registerProbe(Module* m) {
    std::lock_guard<std::mutex> lock(gMutex);
    return probes().emplace_back(new Probe(m));
}

Probe* probeNamed(const std::string& name) {
    std::lock_guard<std::mutex> lock(gMutex);
    for (auto it = probes().rbegin(); it != probes().rend(); ++it) {
        const char* n = (*it)->module->getName();
        if (n != nullptr && name == n) return *it;
    }
    return nullptr;
}

void recordEvent(const char* module, const char* what) {
    std::lock_guard<std::mutex> lock(gMutex);
    journal().emplace_back(module ? module : "(null)", what);
}

std::vector<std::string> eventNames(const std::string& what) {
    std::lock_guard<std::mutex> lock(gMutex);
    std::vector<std::string> out;
    for (const auto& [module, event] : journal()) {
        if (what.empty() || event == what) out.push_back(module + ":" + event);
    }
    return out;
}

void clearEvents() {
    std::lock_guard<std::mutex> lock(gMutex);
    journal().clear();
}

}  // namespace vdtest
