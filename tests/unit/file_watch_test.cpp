// The deployed configuration file watch: which changes it reacts to, what it writes back and
// when it flags running modules, with real inotify inside the test's device root.
#include "config/file_watch.h"

#include <gtest/gtest.h>
#include <jansson.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "config/config_file.h"
#include "config/config_validation.h"
#include "config/document.h"
#include "core/builtin_modules.h"
#include "core/daemon_state.h"
#include "core/log.h"
#include "core/module_registry.h"
#include "core/run_state.h"
#include "fakes/fake_module.h"
#include "fakes/test_platform.h"
#include "quicktap/quicktap.h"
#include "standin/standin_service.h"
#include "storage/utility.h"

namespace {

using namespace std::chrono_literals;
using vigild::testing::FakeModule;
using vigild::testing::registerModule;
using vigild::testing::TestPlatform;

constexpr const char* kInternalFile = "/sdcard/Tellwick/config.json";
constexpr const char* kCardRoot = "/storage/1A2B-3C4D/";
constexpr const char* kCardFile = "/storage/1A2B-3C4D/Tellwick/config.json";
constexpr const char* kReloadLine =
    "vigild::watchConfigFileChange::needs to reload the config file";
constexpr const char* kFlagLine = "vigild::moduleRestartNeeded::Tellwick folder deleted";

std::string currentConfig() {
    char* text = getConfig();
    std::string result = text != nullptr ? text : "";
    free(text);
    return result;
}

// The document in force with the Counting module's "Level" set to `level`.
std::string configWithLevel(const std::string& level) {
    std::string text = currentConfig();
    json_t* root = json_loads(text.c_str(), 0, nullptr);
    json_t* settings = json_object_get(json_object_get(root, "Counting"), "settings");
    for (size_t i = 0; i < json_array_size(settings); i++) {
        json_t* entry = json_array_get(settings, i);
        if (std::string(json_string_value(json_object_get(entry, "name"))) == "Level") {
            json_object_set_new(entry, "value", json_string(level.c_str()));
        }
    }
    char* dumped = json_dumps(root, 0);
    std::string result = dumped;
    free(dumped);
    json_decref(root);
    return result;
}

std::string levelInRegistry() {
    for (modulePair& entry : moduleRegistry) {
        for (const Module::config& c : entry.settings.configs) {
            if (std::string(c.name) == "Level") return c.value;
        }
    }
    return "";
}

class FileWatchTest : public ::testing::Test {
  protected:
    void SetUp() override {
        resetConfigValidationForTesting();
        resetConfigFileForTesting();
        resetQuickTapForTesting();
        resetRunStateForTesting();
        p.enableDebugLog();
        moduleRegistry.emplace_back(&vigildModule);
        // A library-like module with one int setting.
        counting.onInit = [](FakeModule& self, Module::moduleConfig& settings) {
            self.addConfigInt(settings, "Level", const_cast<char*>("1"));
        };
        registerModule(counting);
        for (modulePair& entry : moduleRegistry) entry.module->init(entry.settings);
    }

    void startService(const std::function<void(vdstandin::DeviceAnswers&)>& answers = {}) {
        service = std::make_unique<vdstandin::StandinService>(p.root());
        if (answers) service->updateAnswers(answers);
        ASSERT_TRUE(service->start());
    }

    void insertCard() {
        p.makeDir(std::string(kCardRoot) + "Tellwick/");
        startService([](vdstandin::DeviceAnswers& a) {
            a.sdcardPresent = 1;
            a.sdcardPath = kCardRoot;
        });
    }

    // Runs the watch thread body for `polls` 5-second polls; `between(n)` runs in the n-th
    // poll's sleep, so its change is read by the next pass.
    void runWatch(int polls, const std::function<void(int)>& between) {
        int seen = 0;
        p.clock().onSleep([&](std::chrono::milliseconds d) {
            if (d != 5s) return;
            if (++seen >= polls) {
                exitRequested = 1;
                return;
            }
            between(seen);
        });
        ASSERT_TRUE(vigild::testing::finishesWithin([] { watchConfigFileChange(); }, 20s));
        p.clock().onSleep(nullptr);
    }

    // Replaces a file as an editor that saves by rename does.
    void replaceFile(const std::string& devicePath, const std::string& content) {
        std::string temp = devicePath + ".tmp";
        p.writeFile(temp, content);
        ASSERT_EQ(rename(p.hostPath(temp).c_str(), p.hostPath(devicePath).c_str()), 0);
    }

    TestPlatform p;
    VigildModule vigildModule;
    FakeModule counting{"Counting"};
    std::unique_ptr<vdstandin::StandinService> service;
};

TEST_F(FileWatchTest, ObserverCreatesMissingInternalFileAndWatchesOnlyItWithoutCard) {
    int fd = inotify_init1(IN_NONBLOCK);
    std::string internalPath = "stale", externalPath = "stale";
    int internalWatch = 0, externalWatch = 7;

    EXPECT_EQ(addFileObserver(internalPath, externalPath, fd, internalWatch, externalWatch), 0);

    EXPECT_EQ(internalPath, kInternalFile);
    EXPECT_EQ(externalPath, "");
    EXPECT_GT(internalWatch, 0);
    EXPECT_EQ(externalWatch, 0);
    EXPECT_TRUE(
        p.log().contains("addFileObserver::internal sdcard config file not present", kLogInfo));
    EXPECT_EQ(p.readFile(kInternalFile), currentConfig());
    close(fd);
}

TEST_F(FileWatchTest, ObserverExternalWatchCases) {
    struct Case {
        const char* name;
        const char* cardPath;
        bool makeCardFolder;
        int result;
        bool externalWatched;
    };
    const Case cases[] = {
        {"card without Tellwick folder", kCardRoot, false, -1, false},
        {"card with folder", kCardRoot, true, 0, true},
        {"failed card question falls back to internal", "/sdcard/", false, 0, false},
    };
    startService();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        p.log().clear();
        if (c.makeCardFolder) p.makeDir(std::string(kCardRoot) + "Tellwick/");
        service->updateAnswers([&](vdstandin::DeviceAnswers& a) {
            a.sdcardPresent = 1;
            a.sdcardPath = c.cardPath;
        });

        int fd = inotify_init1(IN_NONBLOCK);
        std::string internalPath, externalPath;
        int internalWatch = 0, externalWatch = 0;
        EXPECT_EQ(addFileObserver(internalPath, externalPath, fd, internalWatch, externalWatch),
                  c.result);
        EXPECT_GT(internalWatch, 0);
        EXPECT_EQ(externalWatch > 0, c.externalWatched);
        if (c.externalWatched) {
            EXPECT_EQ(p.readFile(kCardFile), currentConfig());
        }
        EXPECT_EQ(
            p.log().contains("addFileObserver :: watchfd[1] error  == No such file or directory ",
                             kLogError),
            c.result < 0);
        close(fd);
    }
}

TEST_F(FileWatchTest, DeletedInternalFileIsWrittenBackWithinOnePass) {
    runWatch(2, [&](int) {
        ASSERT_TRUE(p.exists(kInternalFile));
        unlink(p.hostPath(kInternalFile).c_str());
    });

    EXPECT_TRUE(p.exists(kInternalFile));
    EXPECT_EQ(p.readFile(kInternalFile), currentConfig());
    EXPECT_TRUE(p.log().contains("config - file not present"));
    // The deletion and the end of the watch arrive in one read: the first record is tested
    // once per record, so the reaction runs twice.
    EXPECT_EQ(p.log().count(kReloadLine, kLogInfo), 2);
    // Nothing runs, so no module is flagged.
    EXPECT_EQ(p.log().count(kFlagLine), 0);
}

// A plain rewrite is no deletion, and the daemon's own saves and copies (renamed over the
// watched files) are no edits: none reloads or flags modules, and the watch follows the new
// files, so a user's replacement afterwards is loaded.
TEST_F(FileWatchTest, RewritesAndTheDaemonsOwnReplacementsAreIgnoredButAUsersIsLoaded) {
    insertCard();
    start();
    std::vector<int> seen;
    runWatch(5, [&](int poll) {
        seen.push_back(p.log().count(kReloadLine) + p.log().count(kFlagLine));
        if (poll == 1) p.writeFile(kInternalFile, configWithLevel("5"));
        if (poll == 2) {
            const std::string text = currentConfig();
            vigild::Lock lock(configMutex);
            saveFile(kInternalFile, text.c_str());
        }
        if (poll == 3) copyFile(kInternalFile, kCardFile);
        if (poll == 4) replaceFile(kInternalFile, configWithLevel("7"));
    });
    EXPECT_EQ(seen, (std::vector<int>{0, 0, 0, 0}));
    EXPECT_EQ(p.log().count(kFlagLine), 1);
    EXPECT_EQ(levelInRegistry(), "7");
}

TEST_F(FileWatchTest, ExternalFileWriteIsIgnoredAndDeletionReacts) {
    insertCard();
    int reloadsAfterWrite = -1;
    runWatch(3, [&](int poll) {
        if (poll == 1) {
            ASSERT_TRUE(p.exists(kCardFile));
            p.writeFile(kCardFile, configWithLevel("3"));
        } else {
            reloadsAfterWrite = p.log().count(kReloadLine);
            unlink(p.hostPath(kCardFile).c_str());
        }
    });

    EXPECT_EQ(reloadsAfterWrite, 0);
    EXPECT_GT(p.log().count(kReloadLine), 0);
    EXPECT_TRUE(p.exists(kCardFile));
}

TEST_F(FileWatchTest, ADeletionQueuedBehindTheLastReArmIsStillSeen) {
    insertCard();
    int reloadsAfterCard = -1;
    runWatch(3, [&](int poll) {
        if (poll == 1) {
            unlink(p.hostPath(kCardFile).c_str());
        } else {
            // The re-arm after the card reaction left records of the watches it removed.
            reloadsAfterCard = p.log().count(kReloadLine);
            unlink(p.hostPath(kInternalFile).c_str());
        }
    });
    EXPECT_GT(reloadsAfterCard, 0);
    EXPECT_GT(p.log().count(kReloadLine), reloadsAfterCard);
    EXPECT_TRUE(p.exists(kInternalFile));
}

TEST_F(FileWatchTest, RunningModulesAreFlaggedOnlyAfterAReaction) {
    startService();
    start();
    ASSERT_EQ(runState.load(), kStateRunning);
    const int startsBefore = counting.starts;

    runWatch(3, [](int) {});
    EXPECT_EQ(p.log().count(kFlagLine), 0);
    EXPECT_EQ(counting.starts, startsBefore);

    exitRequested = 0;
    runWatch(2, [&](int) { unlink(p.hostPath(kInternalFile).c_str()); });
    // One line per module with an "Enable Module" setting (the daemon's own has none).
    EXPECT_EQ(p.log().count(kFlagLine, kLogDebug), 1);
    EXPECT_GT(counting.starts, startsBefore);
    EXPECT_EQ(runState.load(), kStateRunning);
}

TEST_F(FileWatchTest, SecureModeWithoutTheRightRevertsAnEdit) {
    startService([](vdstandin::DeviceAnswers& a) { a.userValidToDeploy = 0; });
    p.setProperty("persist.sys.vd.secure_mode", "true");
    runWatch(2, [&](int) { replaceFile(kInternalFile, configWithLevel("9")); });

    EXPECT_GT(p.log().count(kReloadLine), 0);
    EXPECT_EQ(levelInRegistry(), "1");
    const std::string inForce = currentConfig();
    EXPECT_EQ(p.readFile(kInternalFile), inForce);
    auto configs = service->configs();
    ASSERT_FALSE(configs.empty());
    EXPECT_EQ(configs.back(), inForce);
}

TEST_F(FileWatchTest, RefreshInSecureModeLoadsOnlyWhenGranted) {
    startService();
    p.setProperty("persist.sys.vd.secure_mode", "true");
    for (int granted : {0, 1}) {
        SCOPED_TRACE(granted);
        service->updateAnswers([&](vdstandin::DeviceAnswers& a) { a.userValidToDeploy = granted; });
        service->clearRecords();
        p.writeFile(kInternalFile, configWithLevel(granted ? "4" : "3"));

        refreshConfigFileSecureMode();

        EXPECT_EQ(levelInRegistry(), granted ? "4" : "1");
        if (!granted) {
            EXPECT_EQ(p.readFile(kInternalFile), currentConfig());
            ASSERT_FALSE(service->configs().empty());
            EXPECT_EQ(service->configs().back(), currentConfig());
        }
    }
}

TEST_F(FileWatchTest, WatchConfigReloadsAndReportsTheUserOnlyWhenItReloads) {
    startService([](vdstandin::DeviceAnswers& a) { a.userValidToDeploy = 0; });
    p.writeFile(kInternalFile, configWithLevel("6"));

    p.setProperty("persist.sys.vd.secure_mode", "true");
    watchConfig();
    EXPECT_EQ(levelInRegistry(), "1");
    EXPECT_TRUE(service->validUserFlags().empty());

    p.setProperty("persist.sys.vd.secure_mode", "false");
    p.writeFile(kInternalFile, configWithLevel("6"));
    watchConfig();
    EXPECT_EQ(levelInRegistry(), "6");
    EXPECT_EQ(service->validUserFlags(), std::vector<int>{0});
}

TEST_F(FileWatchTest, FileAppearingDuringTheRecheckIsNotLoaded) {
    const std::string deployed = configWithLevel("8");
    p.clock().onSleep([&](std::chrono::milliseconds d) {
        if (d == 100ms) p.writeFile(kInternalFile, deployed);
    });
    ASSERT_FALSE(p.exists(kInternalFile));

    watchConfig();

    EXPECT_EQ(levelInRegistry(), "1");
    EXPECT_EQ(p.readFile(kInternalFile), deployed);
    EXPECT_FALSE(p.log().contains("config - file replaced/added"));
    EXPECT_FALSE(p.log().contains("config - file not present"));
}

}  // namespace
