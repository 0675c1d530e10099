// In-process costs of the configuration work and the parcel codec on synthetic registries of
// 10, 40, 100 and 400 modules with 25 settings each. Every measurement has its floor beside it in
// the same run: the plain JSON library doing the least the operation must do.
#include <benchmark/benchmark.h>
#include <jansson.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bench_platform.h"
#include "config/config_rebuild.h"
#include "config/config_validation.h"
#include "config/document.h"
#include "core/daemon_state.h"
#include "core/module_registry.h"
#include "core/thread_annotations.h"
#include "service/bpvd_service.h"
#include "service/parcel.h"
#include "storage/utility.h"
#include "synthetic_module.h"

namespace {

vdbench::BenchPlatform& platform() {
    static vdbench::BenchPlatform p;
    return p;
}

std::vector<std::unique_ptr<vdbench::SyntheticModule>>& modules() {
    static std::vector<std::unique_ptr<vdbench::SyntheticModule>> all;
    return all;
}

struct Documents {
    std::string current;  // the registry as it stands
    std::string changed;  // one int value changed in every module
};

// Fills the registry with `count` synthetic modules (once per size) and returns its documents.
const Documents& useRegistry(int count) {
    static int current = -1;
    static Documents docs;
    platform();
    if (current == count) return docs;
    resetDaemonStateForTesting();
    setprop("persist.sys.vd.storage_path", "/sdcard/");
    for (int i = 0; i < count; i++) {
        char name[32];
        snprintf(name, sizeof(name), "BenchModule%03d", i);
        modules().push_back(std::make_unique<vdbench::SyntheticModule>(name));
        moduleRegistry.emplace_back(modules().back().get());
    }
    for (modulePair& entry : moduleRegistry) entry.module->init(entry.settings);
    char* text = getConfig();
    docs.current = text;
    free(text);
    docs.changed = docs.current;
    // "Rotate Count" carries "128" in every module; make it "129".
    for (size_t at = 0;
         (at = docs.changed.find("\"Rotate Count\",\"type\":\"int\",\"value\":\"128\"", at)) !=
         std::string::npos;) {
        at += strlen("\"Rotate Count\",\"type\":\"int\",\"value\":\"12");
        docs.changed[at] = '9';
    }
    current = count;
    return docs;
}

void sizes(benchmark::internal::Benchmark* b) { b->Arg(10)->Arg(40)->Arg(100)->Arg(400); }

// The floor of every text-in operation: one parse and one dump of the same document.
void BM_JsonLoadsDumps(benchmark::State& state) {
    const Documents& docs = useRegistry(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        json_t* root = json_loads(docs.current.c_str(), 0, nullptr);
        char* text = json_dumps(root, 0);
        benchmark::DoNotOptimize(text);
        free(text);
        json_decref(root);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(docs.current.size()));
}
BENCHMARK(BM_JsonLoadsDumps)->Apply(sizes);

// One build under the lock with the storage root resolved once by the operation, as every
// caller in the daemon does before taking the lock.
template <char* (*Build)(const std::string&)>
void buildUnderLock(benchmark::State& state) {
    useRegistry(static_cast<int>(state.range(0)));
    const std::string root = storageRootForDocument();
    for (auto _ : state) {
        char* text = nullptr;
        {
            vigild::Lock lock(configMutex);
            text = Build(root);
        }
        benchmark::DoNotOptimize(text);
        free(text);
    }
}

// The document built afresh, as after any change.
void BM_GetConfig(benchmark::State& state) { buildUnderLock<buildConfigUncached>(state); }
BENCHMARK(BM_GetConfig)->Apply(sizes);

// getConfig(root) with the settings unchanged since the last build: the path checks, the
// comparison with the kept inputs and a copy of the kept text.
void BM_GetConfigKept(benchmark::State& state) { buildUnderLock<getConfig>(state); }
BENCHMARK(BM_GetConfigKept)->Apply(sizes);

// The whole call as a tool makes it: the storage root resolved, then the kept text.
void BM_GetConfigCall(benchmark::State& state) {
    useRegistry(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        char* text = getConfig();
        benchmark::DoNotOptimize(text);
        free(text);
    }
}
BENCHMARK(BM_GetConfigCall)->Apply(sizes);

// The storage root look-up alone, which each operation makes once.
void BM_StorageRoot(benchmark::State& state) {
    useRegistry(static_cast<int>(state.range(0)));
    for (auto _ : state) benchmark::DoNotOptimize(storageRootForDocument());
}
BENCHMARK(BM_StorageRoot)->Arg(10);

// The floor of getConfig: the same tree built from the C values and dumped.
void BM_BuildTreeAndDump(benchmark::State& state) {
    useRegistry(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        json_t* root = json_object();
        for (const modulePair& entry : moduleRegistry) {
            json_t* settings = json_array();
            for (const Module::config& c : entry.settings.configs) {
                json_t* setting = json_object();
                json_object_set_new(setting, "name", json_string(c.name));
                json_object_set_new(setting, "type", json_string(c.type));
                json_object_set_new(setting, "value", json_string(c.value));
                json_t* list = json_array();
                for (const char* option : c.options)
                    json_array_append_new(list, json_string(option));
                json_object_set_new(setting, "list", list);
                json_array_append_new(settings, setting);
            }
            json_t* module = json_object();
            json_object_set_new(module, "settings", settings);
            json_object_set_new(root, entry.settings.moduleName, module);
        }
        char* text = json_dumps(root, 0);
        benchmark::DoNotOptimize(text);
        free(text);
        json_decref(root);
    }
}
BENCHMARK(BM_BuildTreeAndDump)->Apply(sizes);

void BM_ValidateConfig(benchmark::State& state) {
    const Documents& docs = useRegistry(static_cast<int>(state.range(0)));
    for (auto _ : state) benchmark::DoNotOptimize(validateConfig(docs.current.c_str()));
}
BENCHMARK(BM_ValidateConfig)->Apply(sizes);

// Alternates two documents so every call copies one value per module.
void BM_UpdateConfig(benchmark::State& state) {
    const Documents& docs = useRegistry(static_cast<int>(state.range(0)));
    bool flip = false;
    for (auto _ : state) {
        updateConfig((flip ? docs.changed : docs.current).c_str());
        flip = !flip;
    }
    updateConfig(docs.current.c_str());
}
BENCHMARK(BM_UpdateConfig)->Apply(sizes);

void BM_MakeUpdateConfig(benchmark::State& state) {
    const Documents& docs = useRegistry(static_cast<int>(state.range(0)));
    bool flip = false;
    for (auto _ : state) {
        benchmark::DoNotOptimize(makeUpdateConfig((flip ? docs.changed : docs.current).c_str()));
        flip = !flip;
    }
    makeUpdateConfig(docs.current.c_str());
}
BENCHMARK(BM_MakeUpdateConfig)->Apply(sizes);

// The whole apply: check, copy, module checks, file write; the daemon is stopped and no
// service is reachable, so nothing is restarted or sent.
void BM_SetConfig(benchmark::State& state) {
    const Documents& docs = useRegistry(static_cast<int>(state.range(0)));
    bool flip = false;
    for (auto _ : state) {
        setConfig((flip ? docs.changed : docs.current).c_str());
        flip = !flip;
    }
    setConfig(docs.current.c_str());
}
BENCHMARK(BM_SetConfig)->Apply(sizes);

// Captures a request, or answers with a prepared reply.
class LoopBinder : public vigild::platform::Binder {
  public:
    int32_t transact(uint32_t, const std::vector<uint8_t>& data, std::vector<uint8_t>* reply,
                     uint32_t) override {
        lastSize = data.size();
        *reply = answer;
        return 0;
    }
    size_t lastSize = 0;
    std::vector<uint8_t> answer;
};

// sendConfig's request: the document one byte per 32-bit word.
void BM_ParcelEncodeConfig(benchmark::State& state) {
    const Documents& docs = useRegistry(static_cast<int>(state.range(0)));
    auto binder = std::make_shared<LoopBinder>();
    Bpvd_service proxy(binder);
    for (auto _ : state) benchmark::DoNotOptimize(proxy.sendConfig(docs.current.c_str()));
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(binder->lastSize));
    state.counters["parcel_bytes"] = static_cast<double>(binder->lastSize);
}
BENCHMARK(BM_ParcelEncodeConfig)->Apply(sizes);

// receiveConfig's reply: the document as 16-bit units, low bytes kept.
void BM_ParcelDecodeConfig(benchmark::State& state) {
    const Documents& docs = useRegistry(static_cast<int>(state.range(0)));
    auto binder = std::make_shared<LoopBinder>();
    vigild::Parcel reply;
    reply.writeNoException();
    reply.writeString16(std::u16string(docs.current.begin(), docs.current.end()));
    binder->answer = reply.data();
    Bpvd_service proxy(binder);
    std::string text;
    for (auto _ : state) {
        text = proxy.receiveConfig();
        benchmark::DoNotOptimize(text.data());
    }
    if (text != docs.current) state.SkipWithError("decoded document differs");
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(reply.dataSize()));
    state.counters["parcel_bytes"] = static_cast<double>(reply.dataSize());
}
BENCHMARK(BM_ParcelDecodeConfig)->Apply(sizes);

// The floors of the parcel directions: the parcel's bytes copied into a fresh buffer, four
// bytes per character going out, two coming in.
void copyFloor(benchmark::State& state, size_t bytesPerChar) {
    const Documents& docs = useRegistry(static_cast<int>(state.range(0)));
    const size_t size = bytesPerChar * docs.current.size() + 128;
    std::vector<uint8_t> source(size, 0x5a);
    for (auto _ : state) {
        std::vector<uint8_t> copy(source.begin(), source.end());
        benchmark::DoNotOptimize(copy.data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}
void BM_ParcelEncodeFloor(benchmark::State& state) { copyFloor(state, 4); }
BENCHMARK(BM_ParcelEncodeFloor)->Apply(sizes);
void BM_ParcelDecodeFloor(benchmark::State& state) { copyFloor(state, 2); }
BENCHMARK(BM_ParcelDecodeFloor)->Apply(sizes);

}  // namespace

BENCHMARK_MAIN();
