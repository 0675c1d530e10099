#include "config/document.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "config/config_file.h"
#include "config/config_validation.h"
#include "core/builtin_modules.h"
#include "core/log.h"
#include "core/module_registry.h"
#include "fakes/fake_module.h"
#include "fakes/test_platform.h"
#include "standin/standin_service.h"
#include "storage/log_deletion.h"

using vigild::testing::FakeModule;
using vigild::testing::FakeModules;
using vigild::testing::makeSetting;
using vigild::testing::registerModule;
using vigild::testing::TestPlatform;

namespace {

// getConfig's text, freed here, after checking it against a fresh build.
std::string document() {
    const std::string root = storageRootForDocument();
    vigild::Lock lock(configMutex);
    char* text = getConfig(root);
    char* fresh = buildConfigUncached(root);
    EXPECT_STREQ(text, fresh);
    std::string out = text != nullptr ? text : "";
    free(text);
    free(fresh);
    return out;
}

class DocumentTest : public ::testing::Test {
  protected:
    // Registers a module whose settings are "Enable Module" plus `extra`.
    modulePair& add(const char* name, std::vector<Module::config> extra = {}) {
        modules_.add(name);
        for (Module::config& c : extra) moduleRegistry.back().settings.configs.push_back(c);
        return moduleRegistry.back();
    }

    TestPlatform p;
    FakeModules modules_;
};

TEST_F(DocumentTest, AnEmptyRegistryIsAnEmptyObject) { EXPECT_EQ(document(), "{}"); }

TEST_F(DocumentTest, KnownRegistryGivesTheExactText) {
    VigildModule daemon;
    moduleRegistry.emplace_back(&daemon);
    daemon.init(moduleRegistry.back().settings);
    add("Net",
        {makeSetting("Buffer", "int", "256"), makeSetting("Level", "list", "1", {"low", "high"}),
         makeSetting("Label", "string", "say \"hi\"\\"),
         // "é" cut after its first byte, as a 255-byte copy may leave it: kept as "?".
         makeSetting("Note", "string", "caf\xc3")});
    add("Empty").settings.configs.clear();
    p.enableDebugLog();

    EXPECT_EQ(document(),
              "{\"Tellwick Settings\": {\"settings\": ["
              "{\"name\": \"Enable notifications\", \"type\": \"boolean\", \"value\": \"true\", "
              "\"list\": []}, "
              "{\"name\": \"Enable debug logs\", \"type\": \"boolean\", \"value\": \"false\", "
              "\"list\": []}, "
              "{\"name\": \"Enable internal sdcard only\", \"type\": \"boolean\", "
              "\"value\": \"false\", \"list\": []}]}, "
              "\"Net\": {\"settings\": ["
              "{\"name\": \"Enable Module\", \"type\": \"boolean\", \"value\": \"true\", "
              "\"list\": []}, "
              "{\"name\": \"Buffer\", \"type\": \"int\", \"value\": \"256\", \"list\": []}, "
              "{\"name\": \"Level\", \"type\": \"list\", \"value\": \"1\", "
              "\"list\": [\"low\", \"high\"]}, "
              "{\"name\": \"Label\", \"type\": \"string\", \"value\": \"say \\\"hi\\\"\\\\\", "
              "\"list\": []}, "
              "{\"name\": \"Note\", \"type\": \"string\", \"value\": \"caf?\", \"list\": []}]}, "
              "\"Empty\": {\"settings\": []}}");
    int begin = p.log().indexOf("getconfig:BEGIN");
    ASSERT_GE(begin, 0);
    EXPECT_GT(p.log().indexOf("getconfig before return", begin), begin);
}

// Path settings are kept only inside the current storage root.
class PathCheckTest : public DocumentTest {
  protected:
    void useInternalRoot() {
        p.setProperty("persist.sys.vd.storage_path", "/sdcard/");
        p.makeDir("/sdcard/Tellwick/");
    }
    void useCardRoot() {
        p.setProperty("persist.sys.vd.storage_path", "/storage/1A2B-3C4D/");
        p.makeDir("/storage/1A2B-3C4D/");
        p.makeDir("/sdcard/Tellwick/");
    }
};

TEST_F(PathCheckTest, InternalRoot) {
    useInternalRoot();
    p.enableDebugLog();
    // Module, setting name, type, value, value after the build.
    const char* const rows[][5] = {
        {"ANRModule", "Log Path", "string", "/sdcard/Tellwick/anr/old/",
         "/sdcard/Tellwick/anr/old/"},
        {"TCPDumpModule", "Log Path", "string", "/data/logs/", "/sdcard/Tellwick/tcpdump/"},
        {"TombstoneModule", "log path", "STRING", "/data/x/", "/sdcard/Tellwick/tombstone/"},
        {"Other", "Storage Directory", "string", "abc", "/sdcard/Tellwick/"},
        {"Other2", "Log Path", "int", "/data/x/", "/data/x/"},
        {"Other3", "Log Paths", "string", "/data/x/", "/data/x/"},
        {"Gone", "Log Path", "string", "/storage/1A2B-3C4D/Tellwick/", "/sdcard/Tellwick/"},
        {"", "Log Path", "string", "/data/y/", "/data/y/"},
    };
    for (const auto& row : rows) add(row[0], {makeSetting(row[1], row[2], row[3])});

    document();
    // The memory is rewritten (the text is built from it).
    for (size_t i = 0; i < std::size(rows); i++)
        EXPECT_STREQ(moduleRegistry[i].settings.configs[1].value, rows[i][4]) << rows[i][0];
    // "/data/x/" once: an unchecked setting is never reported.
    EXPECT_EQ(p.log().count("vigild::getConfig::path /data/x/ not found", kLogDebug), 1);
    for (std::string value : {"/data/logs/", "/data/y/"})
        EXPECT_TRUE(p.log().contains("vigild::getConfig::path " + value + " not found", kLogDebug));
    EXPECT_EQ(p.log().count("vigild::getConfig::Log path is UNKNOWN, need to reset", kLogDebug), 1);
}

// Moves its last setting to "7" when asked to judge.
struct AdjustingModule : FakeModule {
    using FakeModule::FakeModule;
    int configVal(moduleConfig& settings, std::vector<std::string>& errors) override {
        snprintf(settings.configs.back().value, VD_CONFIG_VALUE_SIZE, "7");
        return FakeModule::configVal(settings, errors);
    }
};

// Every kind of change shows in the next document and in the next one sent; document() checks
// the kept text against a fresh build each time.
TEST_F(PathCheckTest, KeptDocumentFollowsEveryChange) {
    vdstandin::StandinService service(p.root());
    ASSERT_TRUE(service.start());
    useInternalRoot();
    p.enableDebugLog();
    AdjustingModule adjusting("Adjusting");
    registerModule(adjusting).settings.configs.push_back(makeSetting("Level", "int", "1"));
    add("ANRModule", {makeSetting("Log Path", "string", "/sdcard/Tellwick/anr/")});
    const std::string secure = "Android/data/com.tandril.tellwick/Tellwick/secure/log_data/anr/";
    // Each change, and where the "Log Path" is after it.
    const std::pair<std::function<void()>, std::string> changes[] = {
        {[] { moduleValConfig(0); }, "/sdcard/Tellwick/anr/"},
        {[] { resetToDefault(); }, "/sdcard/Tellwick/anr/"},
        {[&] {  // a deployed file with another "Level"
             std::string text = document();
             p.writeFile("/sdcard/Tellwick/config.json",
                         text.replace(text.find("\"1\""), 2, "\"5"));
             loadConfigFile("/sdcard/Tellwick/config.json");
         },
         "/sdcard/Tellwick/anr/"},
        {[&] { p.setProperty("persist.sys.vd.secure_mode", "true"), updateConfigDefault(false); },
         "/sdcard/" + secure},
        {[&] { useCardRoot(), p.setProperty("vold.sdcard.state", "encrypted"); },
         "/storage/1A2B-3C4D/" + secure},
        // A card's root is two levels deep: a value inside it stays.
        {[] { snprintf(moduleRegistry[1].settings.configs[1].value, 32, "/storage/1A2B-3C4D/x/"); },
         "/storage/1A2B-3C4D/x/"},
    };
    std::string before = document();
    for (const auto& [change, logPath] : changes) {
        change();
        sendConfig();
        const std::string now = document();
        EXPECT_EQ(service.configs().back(), now);
        EXPECT_NE(now, before) << logPath;
        EXPECT_EQ(moduleRegistry[1].settings.configs[1].value, logPath);
        before = now;
    }
    EXPECT_STREQ(moduleRegistry[1].settings.configs[1].defaultValue, "/sdcard/Tellwick/anr/");
    // The document is built between the send's first and last lines, and the lock given back.
    const int built =
        p.log().indexOf("getconfig before return", p.log().indexOf("sendConfig():BEGIN"));
    EXPECT_GT(p.log().indexOf("sendConfig():END", built), built);
    EXPECT_TRUE(configMutex.try_lock());
    configMutex.unlock();
}

}  // namespace
