// The configuration file: saves that survive kills and full disks, loading with its reset
// and retry, log path upkeep, and the deploy permission asked of the service.
#include "config/config_file.h"

#include <gtest/gtest.h>
#include <jansson.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "config/config_validation.h"
#include "config/document.h"
#include "config/file_watch.h"
#include "core/daemon_state.h"
#include "core/log.h"
#include "core/module_registry.h"
#include "fakes/fake_module.h"
#include "fakes/test_platform.h"
#include "quicktap/quicktap.h"
#include "standin/standin_service.h"
#include "storage/log_deletion.h"
#include "storage/storage_root.h"

namespace {

using vigild::testing::makeSetting;
using vigild::testing::setting;
using vigild::testing::TestPlatform;

constexpr const char* kConfigPath = "/sdcard/Tellwick/config.json";
const std::string kCopy = std::string(kConfigPath) + ".bak";
const std::string kPartial = std::string(kConfigPath) + ".tmp";

std::string dump(json_t* json) {
    char* text = json_dumps(json, 0);
    std::string result = text;
    free(text);
    json_decref(json);
    return result;
}

class ConfigFileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        resetConfigValidationForTesting();
        resetConfigFileForTesting();
    }
    void addSetting(const char* name, const char* type, const char* value) {
        moduleRegistry.back().settings.configs.push_back(makeSetting(name, type, value));
    }
    // The registry's document with every setting after "Enable Module" set to `value`.
    static json_t* documentJson(const std::string& value) {
        json_t* document = json_object();
        for (modulePair& entry : moduleRegistry) {
            json_t* settings = json_array();
            for (const Module::config& c : entry.settings.configs) {
                const char* v = strcmp(c.name, "Enable Module") == 0 ? c.value : value.c_str();
                json_array_append_new(settings, json_pack("{s:s,s:s,s:s,s:[]}", "name", c.name,
                                                          "type", c.type, "value", v, "list"));
            }
            json_object_set_new(document, entry.module->getName(),
                                json_pack("{s:o}", "settings", settings));
        }
        return document;
    }
    static std::string documentOf(const std::string& value) { return dump(documentJson(value)); }
    // The value every blob setting holds, or "" when they differ.
    static std::string uniformValue() {
        const auto& configs = moduleRegistry[0].settings.configs;
        for (size_t i = 2; i < configs.size(); i++) {
            if (strcmp(configs[i].value, configs[1].value) != 0) return "";
        }
        return configs[1].value;
    }
    void makeBlobRegistry(size_t count = 120) {
        // Names must outlive the registry.
        static std::vector<std::string> names;
        while (names.size() < count) names.push_back("Blob " + std::to_string(names.size()));
        modules_.add("BlobModule");
        for (size_t i = 0; i < count; i++) addSetting(names[i].c_str(), "string", "d");
    }
    // The names in the configuration file's folder, sorted.
    std::vector<std::string> folderEntries(const std::string& folder = "/sdcard/Tellwick") {
        std::vector<std::string> names;
        for (const auto& e : std::filesystem::directory_iterator(p_.hostPath(folder))) {
            names.push_back(e.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }
    void linkToElsewhere(const std::string& devicePath) {
        p_.writeFile("/sdcard/elsewhere.txt", "precious");
        ASSERT_EQ(
            symlink(p_.hostPath("/sdcard/elsewhere.txt").c_str(), p_.hostPath(devicePath).c_str()),
            0);
    }

    TestPlatform p_;
    vigild::testing::FakeModules modules_;
};

TEST_F(ConfigFileTest, SaveReplacesTheFileWholeLeavesNothingBesideAndNeverWritesThroughALink) {
    saveFile(kConfigPath, "first");
    EXPECT_TRUE(p_.log().contains("Error opening file : /sdcard/Tellwick/config.json errno : 2",
                                  kLogError));
    EXPECT_FALSE(p_.exists(kConfigPath));

    p_.makeDir("/sdcard/Tellwick/");
    saveFile(kConfigPath, "a longer first text");
    saveFile(kConfigPath, "second");
    EXPECT_EQ(p_.readFile(kConfigPath), "second");
    EXPECT_EQ(folderEntries(), std::vector<std::string>{"config.json"});
    saveFile(kConfigPath, nullptr);
    EXPECT_EQ(p_.readFile(kConfigPath), "second");

    unlink(p_.hostPath(kConfigPath).c_str());
    linkToElsewhere(kConfigPath);
    saveFile(kConfigPath, "{}");
    EXPECT_EQ(p_.readFile("/sdcard/elsewhere.txt"), "precious");
    EXPECT_TRUE(p_.log().contains("Error opening file : /sdcard/Tellwick/config.json errno : 40",
                                  kLogError));
}

TEST_F(ConfigFileTest, ACopyLeftByAnInterruptedSaveIsTakenBack) {
    struct Case {
        const char *what, *file, *copy, *partial, *expected;  // null: absent
    };
    const Case cases[] = {
        {"file torn", "new text and old tail", "new text", nullptr, "new text"},
        {"copy never finished", "old", nullptr, "new t", "old"},
        {"empty copy", "old", "", nullptr, "old"},
    };
    p_.makeDir("/sdcard/Tellwick/");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        unlink(p_.hostPath(kConfigPath).c_str());
        if (c.file) p_.writeFile(kConfigPath, c.file);
        if (c.copy) p_.writeFile(kCopy, c.copy);
        if (c.partial) p_.writeFile(kPartial, c.partial);
        EXPECT_EQ(takeLeftConfigCopy(kConfigPath), kConfigPath);
        EXPECT_EQ(p_.readFile(kConfigPath), c.expected);
        EXPECT_EQ(folderEntries(), std::vector<std::string>{"config.json"});
    }
    // A link in the copy's place is not ours: it goes, its target stays.
    linkToElsewhere(kCopy);
    EXPECT_EQ(takeLeftConfigCopy(kConfigPath), kConfigPath);
    EXPECT_EQ(p_.readFile(kConfigPath), "old");
    EXPECT_EQ(p_.readFile("/sdcard/elsewhere.txt"), "precious");
}

TEST_F(ConfigFileTest, LoadingMissingValidPartialAndBrokenFiles) {
    makeBlobRegistry();
    p_.setProperty("persist.sys.vd.storage_path", "/sdcard/");
    EXPECT_EQ(loadConfigFile(kConfigPath), 0);
    p_.writeFile(kConfigPath, documentOf("d"));
    EXPECT_EQ(loadConfigFile(kConfigPath), 0);
    p_.writeFile(kConfigPath, documentOf("valid"));
    EXPECT_EQ(loadConfigFile(kConfigPath), 1);
    EXPECT_EQ(uniformValue(), "valid");

    // One setting missing: it keeps its value, the others are applied.
    json_t* partial = documentJson("partial");
    json_array_remove(json_object_get(json_object_get(partial, "BlobModule"), "settings"), 5);
    p_.writeFile(kConfigPath, dump(partial));
    EXPECT_EQ(loadConfigFile(kConfigPath), 1);
    EXPECT_STREQ(setting(0, 5).value, "valid");
    EXPECT_STREQ(setting(0, 6).value, "partial");
    EXPECT_FALSE(p_.log().contains("config file load failed, load again"));

    p_.writeFile(kConfigPath, "{\"BlobModule\": {\"settings\": [");
    EXPECT_EQ(loadConfigFile(kConfigPath), 1);
    EXPECT_TRUE(p_.log().contains("config file load failed, load again", kLogError));
    EXPECT_EQ(uniformValue(), "d");
    EXPECT_EQ(validateConfig(p_.readFile(kConfigPath).c_str()), 0);
}

TEST_F(ConfigFileTest, PersistLogPathsFollowTheRoot) {
    struct Case {
        bool bootLog, secure;
        const char *value, *expected;
    };
    const Case cases[] = {
        {false, false, "/sdcard/Tellwick/persist/", "/sdcard/Tellwick/persist/"},
        {false, false, "/data/logs/persist/", "/sdcard/Tellwick/persist/"},
        {true, false, "/data/logs/persist/", "/sdcard/Tellwick/persist/bootlog"},
        {true, true, "",
         "/sdcard/Android/data/com.tandril.tellwick/Tellwick/secure/log_data/persist/bootlog"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.value);
        p_.setProperty("persist.sys.vd.secure_mode", c.secure ? "true" : "false");
        EXPECT_EQ(persistLogPathUpdate(c.bootLog, c.value, "/sdcard/"), c.expected);
    }
}

class ConfigServiceTest : public ConfigFileTest {
  protected:
    void SetUp() override {
        ConfigFileTest::SetUp();
        service_ = std::make_unique<vdstandin::StandinService>(p_.root());
        ASSERT_TRUE(service_->start());
    }
    void TearDown() override { service_->stop(); }
    void answerDeploy(int valid) {
        service_->updateAnswers(
            [valid](vdstandin::DeviceAnswers& a) { a.userValidToDeploy = valid; });
    }
    std::unique_ptr<vdstandin::StandinService> service_;
};

TEST_F(ConfigServiceTest, LogPathsAreBroughtIntoTheStorageRoot) {
    struct Case {
        const char *what, *root;
        bool secure;
        const char *value, *expected;
        bool restart, saved;
    };
    const char* secureAnr =
        "/sdcard/Android/data/com.tandril.tellwick/Tellwick/secure/log_data/anr/";
    const Case cases[] = {
        {"internal, in order", "/sdcard/", false, "/sdcard/Tellwick/anr/", "/sdcard/Tellwick/anr/",
         false, false},
        {"external card gone", "/sdcard/", false, "/storage/ABCD-1234/Tellwick/anr/",
         "/sdcard/Tellwick/anr/", true, true},
        {"corrupt card path", "/sdcard/", false, "/storage/sdcard1/Tellwick/anr/",
         "/sdcard/Tellwick/anr/", false, true},
        {"empty", "/sdcard/", false, "", "/sdcard/", false, true},
        {"no folder at all", "/sdcard/", false, "abc", "/sdcard/Tellwick/anr/", true, true},
        {"secure folder outside secure mode", "/sdcard/", false, secureAnr, "/sdcard/Tellwick/anr/",
         false, true},
        {"secure mode", "/sdcard/", true, "/sdcard/Tellwick/anr/", secureAnr, false, true},
        {"card root, on the card", "/storage/1A2B-3C4D/", false, "/storage/1A2B-3C4D/Tellwick/anr/",
         "/storage/1A2B-3C4D/Tellwick/anr/", false, false},
        {"card root, internal path", "/storage/1A2B-3C4D/", false, "/sdcard/Tellwick/anr/",
         "/storage/1A2B-3C4D/Tellwick/anr/", true, true},
    };
    modules_.add("ANRModule");
    addSetting("Log Path", "string", "/sdcard/Tellwick/anr/");
    p_.makeDir("/storage/1A2B-3C4D/");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        p_.setProperty("persist.sys.vd.storage_path", c.root);
        p_.setProperty("persist.sys.vd.secure_mode", c.secure ? "true" : "false");
        // The card is there throughout; internal storage only keeps "/sdcard/" the root.
        p_.setProperty("persist.sys.vd.internal_sd",
                       strcmp(c.root, "/sdcard/") == 0 ? "true" : "false");
        std::string file = configFilePath(c.root);
        p_.writeFile(file, "sentinel");
        service_->clearRecords();
        resetConfigFileForTesting();
        strcpy(setting(0, 1).value, c.value);

        updateConfigDefault(false);
        EXPECT_STREQ(setting(0, 1).value, c.expected);
        EXPECT_EQ(restartAfterPathChange, c.restart);
        EXPECT_EQ(p_.readFile(file) != "sentinel", c.saved);
        EXPECT_EQ(!service_->configs().empty(), c.saved);
    }
}

TEST_F(ConfigServiceTest, SecureModeCopiesTheFileOnlyWithTheUsersRight) {
    const char* secureCopy =
        "/sdcard/Android/data/com.tandril.tellwick/Tellwick/secure/log_data/config.json";
    p_.setProperty("persist.sys.vd.storage_path", "/sdcard/");
    p_.makeDir("/sdcard/Tellwick/");
    saveFile(kConfigPath, "normal");
    EXPECT_FALSE(p_.exists(secureCopy));
    for (const auto& record : service_->records()) EXPECT_NE(record.method, "isUserValidToDeploy");

    p_.setProperty("persist.sys.vd.secure_mode", "true");
    answerDeploy(0);
    saveFile(kConfigPath, "refused");
    EXPECT_FALSE(p_.exists(secureCopy));
    answerDeploy(1);
    saveFile(kConfigPath, "granted");
    EXPECT_EQ(p_.readFile(secureCopy), "granted");
}

TEST_F(ConfigServiceTest, DeployPermissionIsTheServicesAnswer) {
    answerDeploy(1);
    EXPECT_EQ(isPermissionGrantedToDeployConfig(), 1);
    EXPECT_FALSE(p_.log().contains("vigild: isPermissionGrantedToDeployConfig(): status = 1"));
    p_.setProperty("ro.debuggable", "1");
    answerDeploy(0);
    EXPECT_EQ(isPermissionGrantedToDeployConfig(), 0);
    EXPECT_TRUE(
        p_.log().contains("vigild: isPermissionGrantedToDeployConfig(): status = 0", kLogInfo));

    updateValidUserStatus(true);
    updateValidUserStatus(false);
    EXPECT_EQ(service_->validUserFlags(), (std::vector<int>{1, 0}));

    service_->stop();
    p_.log().clear();
    EXPECT_EQ(isPermissionGrantedToDeployConfig(), 0);
    EXPECT_TRUE(p_.log().contains("Failed to obtain a handle on vd_service", kLogError));
    p_.log().clear();
    updateValidUserStatus(true);
    EXPECT_TRUE(p_.log().contains("Failed to obtain a handle on vd_service", kLogError));
}

// A full disk, or a stop as by a kill, at each write, sync and rename of every path that
// writes a file the daemon reads back as its configuration: the file holds all of the old text
// or all of the new, and loading it never falls back to the defaults.
TEST_F(ConfigServiceTest, AFailureAtAnyStepOfAConfigurationWriteLeavesAWholeFile) {
    using Fault = vigild::testing::FaultyFiles::Fault;
    p_.setProperty("persist.sys.vd.storage_path", "/sdcard/");
    answerDeploy(1);
    makeBlobRegistry();
    const std::string before = documentOf("old"), after = documentOf(std::string(200, 'N'));
    const std::string secure = std::string("/sdcard/") + kSecureLogFolder + "config.json";
    const std::string preset = "/sdcard/Tellwick/quicktap/default/config.json";
    const struct {
        const char* name;
        std::string file;
        bool secure, leftCopy;
        std::function<void()> write;
    } paths[] = {
        {"save", kConfigPath, false, false,
         [&] {
             vigild::Lock lock(configMutex);
             saveFile(kConfigPath, after.c_str());
         }},
        {"quicktap switch", kConfigPath, false, false, [] { copyQuickTapConfigFilePath(); }},
        {"secure copy", secure, true, false, [] { copyConfigFileToSecurePath(kConfigPath); }},
        {"copy put back", kConfigPath, false, true, [] { takeLeftConfigCopy(kConfigPath); }},
    };
    for (const auto& path : paths) {
        p_.setProperty("persist.sys.vd.secure_mode", path.secure ? "true" : "false");
        auto prepare = [&] {
            p_.writeFile(path.file, before);
            p_.writeFile(path.secure ? kConfigPath : preset, after);
            if (path.leftCopy) p_.writeFile(kCopy, after);
        };
        prepare();
        p_.files().arm(0);
        path.write();
        const int steps = p_.files().calls();
        ASSERT_EQ(p_.readFile(path.file), after) << path.name;
        ASSERT_GT(steps, 0) << path.name;
        for (Fault fault : {Fault::kFail, Fault::kStop}) {
            for (int step = 1; step <= steps; step++) {
                SCOPED_TRACE(std::string(path.name) + " step " + std::to_string(step) +
                             (fault == Fault::kStop ? " stopped" : " failed"));
                prepare();
                p_.files().arm(step, ENOSPC, fault);
                try {
                    path.write();
                } catch (const vigild::testing::StoppedHere&) {
                }
                p_.files().arm(0);
                const std::string text = p_.readFile(path.file);
                EXPECT_TRUE(text == before || text == after) << text.size() << " bytes";
                p_.log().clear();
                loadConfigFile(path.file.c_str());
                EXPECT_FALSE(p_.log().contains("config file load failed, load again"));
                EXPECT_TRUE(uniformValue() == "old" || uniformValue() == std::string(200, 'N'));
            }
        }
    }
}

}  // namespace
