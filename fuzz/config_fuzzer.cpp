// Configuration text from the service, from a deployed file and through the lint, against a
// registry shaped like a device's. Besides "no crash": a document that passes the check must
// come back out of the registry, and out of the saved file, as one that passes it too.
#include <jansson.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "config/config_file.h"
#include "config/config_rebuild.h"
#include "config/config_validation.h"
#include "config/document.h"
#include "core/module_registry.h"
#include "fuzz_device.h"
#include "storage/utility.h"

#ifdef VDFUZZ_WITH_LINT
#include "config_lint/config_lint.h"
#endif

namespace {

std::string currentDocument() {
    char* text = getConfig();
    if (text == nullptr) vdfuzz::fail("getConfig returned null", "");
    std::string out = text;
    free(text);
    return out;
}

// A text that passed the check has been copied into the registry value for value (cut to the
// buffer), and the document built from it passes the check again.
void checkRoundTrip(const char* text) {
    json_t* document = json_loads(text, 0, nullptr);
    for (modulePair& entry : moduleRegistry) {
        json_t* settings =
            json_object_get(json_object_get(document, entry.settings.moduleName), "settings");
        for (size_t i = 0; i < entry.settings.configs.size(); i++) {
            const char* value =
                json_string_value(json_object_get(json_array_get(settings, i), "value"));
            const char* held = entry.settings.configs[i].value;
            if (value == nullptr || strncmp(value, held, VD_CONFIG_VALUE_SIZE - 1) != 0) {
                vdfuzz::fail("accepted value not applied", held);
            }
        }
    }
    json_decref(document);
    std::string rebuilt = currentDocument();
    if (validateConfig(rebuilt.c_str()) != 0) {
        vdfuzz::fail("document of an accepted text is refused", rebuilt);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    vdfuzz::FuzzDevice& device = vdfuzz::FuzzDevice::get();
    // The registry's own document must pass its own check, or every finding is noise.
    std::string defaults = currentDocument();
    if (validateConfig(defaults.c_str()) != 0) vdfuzz::fail("defaults refused", defaults);
    device.reset();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    vdfuzz::FuzzDevice& device = vdfuzz::FuzzDevice::get();
    const std::string text(reinterpret_cast<const char*>(data), size);
    device.reset();
    bool accepted = validateConfig(text.c_str()) == 0;

    // One way in per input, picked by the length, so that an input costs one operation (an
    // apply alone resolves the storage root several times and writes the file durably) and
    // the mutations, which change lengths all the time, still take every text every way.
    switch (size % 4) {
        case 0:
            // A document from the service, step by step.
            updateConfig(text.c_str());
            if (accepted) checkRoundTrip(text.c_str());
            moduleValConfig(0);
            break;
        case 1: {
            // The whole apply. A refused text is still laid over the defaults as far as it
            // fits, so only an accepted one promises a file the daemon accepts in turn.
            setConfig(text.c_str());
            const std::string path = "/sdcard/Tellwick/config.json";
            if (!device.exists(path)) vdfuzz::fail("no configuration file after an apply", "");
            if (accepted) {
                char* saved = fileReader(path.c_str());
                int rc = validateConfig(saved);
                if (rc != 0) vdfuzz::fail("saved configuration refused", saved);
                delete[] saved;
            }
            break;
        }
        case 2: {
            // A deployed file merged by name.
            int merged = makeUpdateConfig(text.c_str());
            if (merged < -1 || merged > 1) {
                vdfuzz::fail("makeUpdateConfig result", std::to_string(merged));
            }
            free(getConfig());
            break;
        }
        default:
#ifdef VDFUZZ_WITH_LINT
            vdtools::lintConfig(text);
#endif
            break;
    }
    device.endInput();
    return 0;
}
