#include "config/document.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/builtin_modules.h"
#include "core/log.h"
#include "core/module_registry.h"
#include "fakes/fake_module.h"
#include "fakes/test_platform.h"
#include "standin/standin_service.h"

using vigild::testing::FakeModules;
using vigild::testing::makeSetting;
using vigild::testing::TestPlatform;

namespace {

// getConfig's text, freed here.
std::string document() {
    char* text = getConfig();
    EXPECT_NE(text, nullptr);
    std::string out = text != nullptr ? text : "";
    free(text);
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
         makeSetting("Label", "string", "say \"hi\"\\")});
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
              "\"list\": []}]}, "
              "\"Empty\": {\"settings\": []}}");
    int begin = p.log().indexOf("getconfig:BEGIN");
    ASSERT_GE(begin, 0);
    EXPECT_GT(p.log().indexOf("getconfig before return", begin), begin);
}

TEST_F(DocumentTest, ACutCharacterDoesNotDropTheValue) {
    // "é" cut after its first byte, as a 255-byte copy may leave it.
    add("Cut", {makeSetting("Note", "string", "caf\xc3")});
    EXPECT_NE(document().find("\"name\": \"Note\", \"type\": \"string\", \"value\": \"caf?\""),
              std::string::npos);
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
    struct Row {
        const char* module;
        const char* name;
        const char* type;
        const char* value;
        const char* expected;
    };
    const Row rows[] = {
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
    for (const Row& row : rows) add(row.module, {makeSetting(row.name, row.type, row.value)});

    std::string text = document();
    for (size_t i = 0; i < std::size(rows); i++) {
        const Row& row = rows[i];
        // The memory is rewritten, not only the text.
        EXPECT_STREQ(moduleRegistry[i].settings.configs[1].value, row.expected) << row.module;
        std::string member = std::string("\"name\": \"") + row.name + "\", \"type\": \"" +
                             row.type + "\", \"value\": \"" + row.expected + "\"";
        EXPECT_NE(text.find(member), std::string::npos) << member;
    }
    EXPECT_TRUE(p.log().contains("vigild::getConfig::path /data/logs/ not found", kLogDebug));
    EXPECT_TRUE(p.log().contains("vigild::getConfig::path /data/x/ not found", kLogDebug));
    EXPECT_TRUE(p.log().contains("vigild::getConfig::path /data/y/ not found", kLogDebug));
    EXPECT_EQ(p.log().count("vigild::getConfig::Log path is UNKNOWN, need to reset", kLogDebug), 1);
    // An unchecked setting is never reported.
    EXPECT_EQ(p.log().count("vigild::getConfig::path /data/x/ not found"), 1);
}

TEST_F(PathCheckTest, CardRoot) {
    useCardRoot();
    p.makeDir("/sdcard/Tellwick/anr/");
    add("ANRModule", {makeSetting("Log Path", "string", "/storage/1A2B-3C4D/Tellwick/anr/")});
    add("TCPDumpModule", {makeSetting("Log Path", "string", "/sdcard/Tellwick/anr/")});
    add("RamoopsModule", {makeSetting("Log Path", "string", "/storage/9999-0000/Tellwick/")});
    document();
    EXPECT_STREQ(moduleRegistry[0].settings.configs[1].value, "/storage/1A2B-3C4D/Tellwick/anr/");
    EXPECT_STREQ(moduleRegistry[1].settings.configs[1].value,
                 "/storage/1A2B-3C4D/Tellwick/tcpdump/");
    EXPECT_STREQ(moduleRegistry[2].settings.configs[1].value,
                 "/storage/1A2B-3C4D/Tellwick/ramoops/");
    // The default stays what the module declared.
    EXPECT_STREQ(moduleRegistry[1].settings.configs[1].defaultValue, "/sdcard/Tellwick/anr/");
}

TEST_F(DocumentTest, SendConfigWithoutServiceBuildsNothing) {
    p.enableDebugLog();
    add("Net");
    sendConfig();
    EXPECT_TRUE(p.log().contains("Failed to obtain a handle on vd_service", kLogError));
    EXPECT_FALSE(p.log().contains("getconfig:BEGIN"));
    // The lock was not left held.
    EXPECT_TRUE(configMutex.try_lock());
    configMutex.unlock();
    decrefJson();  // nothing is left to release, and it is safe to call at any time
}

TEST_F(DocumentTest, SendConfigSendsTheDocumentInForceAndReleasesTheLock) {
    vdstandin::StandinService service(p.root());
    ASSERT_TRUE(service.start());
    p.setProperty("persist.sys.vd.storage_path", "/sdcard/");
    p.makeDir("/sdcard/Tellwick/");
    p.enableDebugLog();
    // Moved by the path check while the document is built: the service gets the moved value.
    add("ANRModule", {makeSetting("Log Path", "string", "/data/anr/")});
    add("Net", {makeSetting("Level", "list", "1", {"low", "high"})});

    sendConfig();
    sendConfig();

    const std::string inForce = document();
    EXPECT_NE(inForce.find("\"value\": \"/sdcard/Tellwick/anr/\""), std::string::npos);
    EXPECT_EQ(service.configs(), (std::vector<std::string>{inForce, inForce}));
    const int begin = p.log().indexOf("sendConfig():BEGIN");
    ASSERT_GE(begin, 0);
    const int built = p.log().indexOf("getconfig before return", begin);
    EXPECT_GT(built, begin);
    EXPECT_GT(p.log().indexOf("sendConfig():END", built), built);
    EXPECT_TRUE(configMutex.try_lock());
    configMutex.unlock();
}

}  // namespace
