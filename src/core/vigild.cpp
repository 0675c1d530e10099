#include "core/vigild.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "config/config_file.h"
#include "config/file_watch.h"
#include "core/command_loop.h"
#include "core/daemon_state.h"
#include "core/eof_monitor.h"
#include "core/log.h"
#include "core/module_loader.h"
#include "core/module_registry.h"
#include "core/run_state.h"
#include "platform/platform.h"
#include "service/ivd_service.h"
#include "storage/bugreport.h"
#include "storage/storage_root.h"
#include "storage/utility.h"
#include "vigild_version.h"

namespace {

constexpr int kBootFolderAttempts = 40;
constexpr int kStorageAttempts = 121;
// The whole storage wait in seconds, as the messages report it.
constexpr int kStorageWaitSeconds = 600;
constexpr std::chrono::seconds kRetryPause{5};

void pause(std::chrono::milliseconds duration) {
    vigild::platform::current().clock->sleepFor(duration);
}

}  // namespace

void logStartupSummary(const std::string& storageRoot) {
    std::string modules;
    for (const modulePair& entry : moduleRegistry) {
        const char* version = entry.module->getVersion();
        modules += std::string(modules.empty() ? "" : ", ") + entry.settings.moduleName + " " +
                   (version != nullptr ? version : "?");
    }
    std::string skipped;
    for (const SkippedLibrary& library : skippedLibraries()) {
        skipped += (skipped.empty() ? "" : ", ") + library.file + " (" + library.reason + ")";
    }
    const char* layout = isTellwickSecureModeEnabled() ? "secure" : "normal";
    const char* medium = storageRoot == "/sdcard/" ? "internal" : "card";
    LOGI(
        "vigild %s started: device root %s, storage root %s (%s layout, %s), modules: %s; "
        "skipped: %s; companion service: %s",
        VIGILD_VERSION, vigild::platform::current().root->toHost("/").c_str(),
        storageRoot.empty() ? "none" : storageRoot.c_str(), layout, medium, modules.c_str(),
        skipped.empty() ? "none" : skipped.c_str(), serviceLookupPlace().c_str());
}

int duringBootCheckFileSystemAvailability(std::string path) {
    LOGI("vigild::duringBootCheckFileSystemAvailability::path == %s", path.c_str());
    for (int attempt = 1; attempt <= kBootFolderAttempts; attempt++) {
        if (mkdir_all(path.c_str()) == 0) {
            LOGI("vigild::Directory created successfully:");
            return 0;
        }
        LOGD("vigild::Attempt no :: %d :: Failed to create directory: ", attempt);
        pause(kRetryPause);
    }
    LOGI("vigild::Exhausted all attempts. Unable to create directory: ");
    return 1;
}

bool waitForStorage(const std::function<std::string()>& lookup) {
    int attempt = 0;
    for (;;) {
        if (!lookup().empty()) return true;
        // "600" is the whole wait in seconds, not the number of tries.
        LOGI("No file system avaiable error, try %d of %d", attempt, kStorageWaitSeconds);
        attempt++;
        if (attempt >= kStorageAttempts) {
            LOGE(
                "Error accessing file system after %i ties. No internel or externel sdcard "
                "found ",
                kStorageWaitSeconds);
            vigild::platform::current().processes->runShell("setprop ctl.stop vigild");
            return false;
        }
        pause(kRetryPause);
    }
}

int bootDaemon(DaemonThreads& threads) {
    LOGD("vd begin");
    duringBootCheckFileSystemAvailability("/sdcard/Tellwick/");
    if (!waitForStorage(getDefaultDirectory)) return kBootNoStorage;
    if (buildModuleRegistry() != 0) return kBootNoLibraryFolder;

    threads.systemTimeCheker = std::thread(systemTimeCheker);
    threads.syncServiceState = std::thread(syncServiceState);
    threads.monitorEOF = std::thread(monitorEOF);

    runState = kStateStopped;
    const std::string storageRoot = getDefaultDirectory();
    loadConfigFile(configFilePath(storageRoot).c_str());

    // Logging resumes after a reboot exactly when it was on before.
    char autostart[vigild::platform::kPropValueMax];
    getprop(autostart, "persist.sys.vd.autostart", "false");
    if (strcmp(autostart, "true") == 0) start();

    threads.watchConfig = std::thread(watchConfig);
    // A request left over from before the restart is not acted on.
    setprop("persist.sys.vd.tw_bugreport", "false");

    threads.watchConfig.join();
    threads.systemTimeCheker.join();
    threads.syncServiceState.join();
    logStartupSummary(storageRoot);
    // Start-up's documents, module lists and thread arenas are freed: hand the pages back.
    vigild::platform::releaseFreeMemory();
    return kBootReady;
}

void runDaemon(DaemonThreads& threads) {
    threads.watchConfigFileChange = std::thread(watchConfigFileChange);
    threads.generateBugreport = std::thread(generateBugreport);
    threads.messageHandler = std::thread(messageHandler);

    threads.messageHandler.join();
    threads.monitorEOF.join();
    threads.watchConfigFileChange.join();
    threads.generateBugreport.join();
}

int vigildMain() {
    std::string error;
    if (!vigild::platform::installDefault(&error)) {
        fprintf(stderr, "%s\n", error.c_str());
        return 2;
    }
    DaemonThreads threads;
    int boot = bootDaemon(threads);
    if (boot == kBootNoStorage) exit(0);
    if (boot == kBootNoLibraryFolder) return 1;
    runDaemon(threads);
    return 0;
}
