// The bug report tool's output, as the worker reads it: the "OK:" line is parsed, the archive
// it names is filed under a "TwBugreport-" name and the service is told. Whatever the tool
// prints, the pass ends, clears the request and creates nothing outside the log folder.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <set>
#include <string>

#include "fuzz_device.h"
#include "storage/bugreport.h"

namespace {

std::set<std::string> treeOf(const std::string& root) {
    std::set<std::string> paths;
    std::error_code ec;
    for (auto it = std::filesystem::recursive_directory_iterator(root, ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
        paths.insert(it->path().string());
    }
    return paths;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    vdfuzz::FuzzDevice& device = vdfuzz::FuzzDevice::get();
    device.reset();
    const std::string output(reinterpret_cast<const char*>(data), size);

    // The parsing on its own.
    std::string name = bugreportArchiveName(bugreportArchivePath(output));
    if (name.rfind("TwBugreport-", 0) != 0) vdfuzz::fail("archive name", name);

    // A whole pass, with an archive where the usual tool leaves it.
    device.writeFile("/bugreports/bugreport-dev-2020.zip", "PK\x03\x04 archive");
    device.setProperty("persist.sys.vd.tw_bugreport", "true");
    device.setToolOutput(output);
    const std::set<std::string> before = treeOf(device.root());
    int rc = bugreportPass(std::chrono::seconds(5));
    if (rc != kBugreportDone) vdfuzz::fail("pass result", std::to_string(rc));
    if (device.property("persist.sys.vd.tw_bugreport") != "false") {
        vdfuzz::fail("request not cleared", device.property("persist.sys.vd.tw_bugreport"));
    }
    const std::string logFolder = device.hostPath("/sdcard/Tellwick/");
    for (const std::string& path : treeOf(device.root())) {
        if (before.count(path) == 0 && path.rfind(logFolder, 0) != 0) {
            vdfuzz::fail("created outside the log folder", path);
        }
    }

    // Without the service nothing is reported and the request stays for the next poll.
    device.reset();
    device.setServicePresent(false);
    device.setProperty("persist.sys.vd.tw_bugreport", "true");
    device.setToolOutput(output);
    if (bugreportPass(std::chrono::seconds(5)) != kBugreportNoService) {
        vdfuzz::fail("pass without service", "");
    }
    if (device.property("persist.sys.vd.tw_bugreport") != "true") vdfuzz::fail("request lost", "");
    device.endInput();
    return 0;
}
