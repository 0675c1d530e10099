// Building the document looks the storage root up once, however many path settings there
// are: the lookup asks the companion service and looks over the storage folders.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "config/document.h"
#include "core/module_registry.h"
#include "fakes/fake_module.h"
#include "fakes/test_platform.h"
#include "standin/standin_service.h"

using vigild::testing::FakeModule;
using vigild::testing::TestPlatform;

namespace {

Module::config pathSetting(const std::string& value) {
    Module::config c = {};
    c.name = "Log Path";
    c.type = "string";
    snprintf(c.defaultValue, sizeof(c.defaultValue), "%s", value.c_str());
    snprintf(c.value, sizeof(c.value), "%s", value.c_str());
    return c;
}

int cardQuestions(const vdstandin::StandinService& service) {
    int n = 0;
    for (const vdstandin::Record& r : service.records()) n += r.method == "isSDcardPresent";
    return n;
}

TEST(DocumentLookups, OneRootLookupPerBuildWithTheSameResult) {
    TestPlatform p;
    vdstandin::StandinService service(p.root());
    ASSERT_TRUE(service.start());
    p.setProperty("persist.sys.vd.storage_path", "/sdcard/");
    p.makeDir("/sdcard/Tellwick/");
    std::vector<std::unique_ptr<FakeModule>> modules;
    for (int i = 0; i < 6; i++) {
        modules.push_back(std::make_unique<FakeModule>("M" + std::to_string(i)));
        moduleRegistry.emplace_back(modules.back().get());
        // Every other one lies outside the root and is moved to its default folder.
        std::string value = i % 2 ? "/data/m" + std::to_string(i) + "/"
                                  : "/sdcard/Tellwick/m" + std::to_string(i) + "/";
        moduleRegistry.back().settings.configs.push_back(pathSetting(value));
    }

    char* text = getConfig();
    ASSERT_NE(text, nullptr);
    free(text);
    // One lookup for the whole build, moved settings included.
    EXPECT_EQ(cardQuestions(service), 1);
    for (int i = 0; i < 6; i++) {
        std::string expected =
            i % 2 ? "/sdcard/Tellwick/" : "/sdcard/Tellwick/m" + std::to_string(i) + "/";
        EXPECT_EQ(moduleRegistry[i].settings.configs[1].value, expected) << i;
    }

    // Everything is inside the root now: one lookup for the whole build.
    service.clearRecords();
    text = getConfig();
    ASSERT_NE(text, nullptr);
    free(text);
    EXPECT_EQ(cardQuestions(service), 1);
}

}  // namespace
