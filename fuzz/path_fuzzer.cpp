// Paths and path pieces from outside (a "Log Path" value, a card name, a property) through
// the string helpers, the storage code, the document's path check and the device-root
// mapping. The helpers must return parts of their input; the storage code must keep every
// log path in the storage root; the mapping must never leave the root.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "config/config_file.h"
#include "config/document.h"
#include "core/module_registry.h"
#include "fuzz_device.h"
#include "platform/host/host_platform.h"
#include "storage/storage_root.h"
#include "storage/utility.h"

namespace {

bool startsWith(const std::string& text, const std::string& head) {
    return text.compare(0, head.size(), head) == 0;
}

bool endsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

void checkHelpers(const std::string& text, const std::string& pattern, int n) {
    std::string trimmed = trim(text);
    if (text.find(trimmed) == std::string::npos) vdfuzz::fail("trim invented text", trimmed);
    const std::string blanks = " \t\n";
    if (!trimmed.empty() && (blanks.find(trimmed.front()) != std::string::npos ||
                             blanks.find(trimmed.back()) != std::string::npos)) {
        vdfuzz::fail("trim left a blank", trimmed);
    }

    std::string nth = substrNthPlace(text, pattern, n);
    if (nth != "UNKNOWN" && !startsWith(text, nth)) vdfuzz::fail("substrNthPlace", nth);

    std::string after = truncateFromSubstring(text, pattern);
    if (!endsWith(text, after)) vdfuzz::fail("truncateFromSubstring", after);

    bool rooted = startsWithSdcardOrStorage(text);
    bool prefixed = startsWith(text, "/sdcard/") || startsWith(text, "/storage/");
    // The pattern's "." stops at line ends, so a path with one is refused as well.
    bool lineEnds = text.find_first_of("\r\n") != std::string::npos;
    if (rooted != (prefixed && !lineEnds)) vdfuzz::fail("startsWithSdcardOrStorage", text);
}

void checkHostRoot(const std::string& path) {
    static const vigild::platform::host::HostRoot root("/tmp/vdfuzz-root");
    std::string host = root.toHost(path);
    // An empty path stays empty, so it fails at the OS as it would on a device.
    if (path.empty() && host.empty()) return;
    if (host != "/tmp/vdfuzz-root" && !startsWith(host, "/tmp/vdfuzz-root/")) {
        vdfuzz::fail("toHost left the root", host);
    }
    if (host.find("/../") != std::string::npos || endsWith(host, "/..")) {
        vdfuzz::fail("toHost kept a ..", host);
    }
}

// A log folder the daemon settles on never climbs with ".." and holds no control byte.
void checkSettled(const char* what, const std::string& path, const std::string& root) {
    if (!startsWith(path, root)) vdfuzz::fail(what, path);
    size_t start = 0;
    while (start <= path.size()) {
        size_t slash = path.find('/', start);
        if (slash == std::string::npos) slash = path.size();
        if (path.compare(start, slash - start, "..") == 0) vdfuzz::fail(what, path);
        start = slash + 1;
    }
    for (unsigned char c : path) {
        if (c < 0x20 || c == 0x7F) vdfuzz::fail(what, path);
    }
}

Module::config& logPathOf(const char* module) {
    for (modulePair& entry : moduleRegistry) {
        if (strcmp(entry.settings.moduleName, module) != 0) continue;
        for (Module::config& c : entry.settings.configs) {
            if (strcmp(c.name, "Log Path") == 0) return c;
        }
    }
    vdfuzz::fail("no Log Path", module);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    vdfuzz::FuzzDevice& device = vdfuzz::FuzzDevice::get();
    device.reset();
    std::string text;
    std::string pattern;
    vdfuzz::splitInput(data, size, '\n', &text, &pattern);
    int n = size > 0 ? static_cast<int8_t>(data[0]) : 1;

    checkHelpers(text, pattern.empty() ? "/" : pattern, n);
    checkHostRoot(text);

    // Inputs of odd length run with a removable card as the storage root.
    std::string root = "/sdcard/";
    if (size % 2 == 1) {
        root = "/storage/1A2B-3C4D/";
        device.writeFile(root + "Tellwick/anr/.keep", "");
        device.setProperty("persist.sys.vd.storage_path", root);
    }
    if (getDefaultDirectory() != root) vdfuzz::fail("storage root", getDefaultDirectory());
    if (!startsWith(returnCorrectedLogPath(text), root)) {
        vdfuzz::fail("module folder outside the root", returnCorrectedLogPath(text));
    }
    for (bool bootLog : {false, true}) {
        checkSettled("persist path", persistLogPathUpdate(bootLog, text, root), root);
    }

    // The document's path check, on a folder the module really has.
    device.writeFile(root + "Tellwick/anr/.keep", "");
    Module::config& logPath = logPathOf("ANRModule");
    snprintf(logPath.value, sizeof(logPath.value), "%s", text.c_str());
    free(getConfig());
    checkSettled("Log Path", logPath.value, root);
    device.endInput();
    return 0;
}
