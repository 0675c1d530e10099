#include "core/module_loader.h"

#include <dirent.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "core/log.h"
#include "core/module_registry.h"
#include "fakes/test_platform.h"
#include "test_module_probe.h"

using vigild::testing::TestPlatform;

namespace {

class ModuleLoaderTest : public ::testing::Test {
  protected:
    void SetUp() override { vdtest::clearEvents(); }

    void install(const std::vector<std::string>& files) {
        ASSERT_TRUE(vdtest::installTestModules(p.root(), files));
    }

    std::vector<std::string> registryNames() const {
        std::vector<std::string> out;
        for (const modulePair& entry : moduleRegistry) out.push_back(entry.settings.moduleName);
        return out;
    }

    const modulePair* entryNamed(const std::string& name) const {
        for (const modulePair& entry : moduleRegistry) {
            if (name == entry.settings.moduleName) return &entry;
        }
        return nullptr;
    }

    TestPlatform p;
};

TEST_F(ModuleLoaderTest, OrdersBuiltInsAroundLibraryModulesSortedByName) {
    install({"lib_vd_zzz.so", "lib_vd_alpha.so", "lib_vd_beta.so", "lib_vd_new.so"});
    EXPECT_EQ(buildModuleRegistry(), 0);
    EXPECT_EQ(registryNames(), (std::vector<std::string>{"Tellwick Settings", "A", "B", "New",
                                                         "ZZZ", "QuickTapModule"}));
    // init once each, in registry order.
    EXPECT_EQ(vdtest::eventNames("init"),
              (std::vector<std::string>{"A:init", "B:init", "New:init", "ZZZ:init"}));
    for (const char* name : {"A", "B", "New", "ZZZ"}) {
        const modulePair* entry = entryNamed(name);
        ASSERT_NE(entry, nullptr) << name;
        vdtest::Probe* probe = vdtest::probeOf(entry->module);
        ASSERT_NE(probe, nullptr) << name;
        EXPECT_EQ(probe->inits.load(), 1) << name;
        EXPECT_STREQ(entry->settings.configs[0].name, "Enable Module");
        // No "LTSModule": nobody's pointer is touched.
        EXPECT_EQ(entry->module->ltsSettings, nullptr);
    }
}

TEST_F(ModuleLoaderTest, FiltersNamesVersionsAndBrokenLibraries) {
    install({"lib_vd_beta.so", "lib_vd_old.so", "lib_vd_wrong.so", "lib_vd_skip.so",
             "lib_vd_noentry.so", "lib_vd_nullname.so", "lib_vd_nullversion.so", "libvd_x.so",
             "lib_VD_x.so"});
    p.writeFile("/system/lib64/lib_vd_garbage.so", "This is not a shared library.\n");
    // Right prefix, nothing behind it: tried like any other.
    ASSERT_TRUE(vdtest::installTestModule(p.root(), "lib_vd_alpha.so", "lib_vd_"));
    // Not a library file name at all but with the prefix: still tried.
    ASSERT_TRUE(vdtest::installTestModule(p.root(), "lib_vd_new.so", "lib_vd_new.txt"));
    p.enableDebugLog();

    EXPECT_EQ(buildModuleRegistry(), 0);
    EXPECT_EQ(registryNames(),
              (std::vector<std::string>{"Tellwick Settings", "A", "B", "New", "QuickTapModule"}));
    auto& log = p.log();
    for (const auto& [name, version] :
         std::initializer_list<std::pair<std::string, std::string>>{{"Old", "14.0"},
                                                                    {"Wrong", "114.0.1"},
                                                                    {"(null)", "14.0.0.1"},
                                                                    {"NullVersion", "(null)"}}) {
        EXPECT_TRUE(log.contains("Module: " + name +
                                     " is using a different base version and cannot be loaded. "
                                     "Needed base version 14.0.X.X, actual version " +
                                     version,
                                 kLogError))
            << name;
    }
    EXPECT_TRUE(log.contains(
        "Module: Skip is present but not loaded based off of the module determination", kLogInfo));
    EXPECT_TRUE(log.contains("name is lib_vd_garbage.so", kLogError));
    int noEntry = 0, openError = 0;
    for (const auto& line : log.lines()) {
        if (line.priority != kLogError || line.text.rfind("got an error ", 0) != 0) continue;
        if (line.text.find("getModule") != std::string::npos) noEntry++;
        if (line.text.find("lib_vd_garbage.so") != std::string::npos) openError++;
    }
    EXPECT_EQ(noEntry, 1);
    EXPECT_EQ(openError, 1);

    for (const char* file : {"lib_vd_", "lib_vd_beta.so", "lib_vd_garbage.so", "lib_vd_old.so"}) {
        EXPECT_TRUE(log.contains(std::string("vd so file found: ") + file, kLogDebug)) << file;
    }
    EXPECT_FALSE(log.contains("vd so file found: libvd_x.so") ||
                 log.contains("vd so file found: lib_VD_x.so"));
    // Files that fail dlopen stop before "post open"; the others pass it.
    EXPECT_EQ(log.count("post open", kLogDebug), 9);
    // Every library with an entry point gets as far as calling it.
    EXPECT_EQ(log.count("after getModule", kLogDebug), 8);
    EXPECT_EQ(log.count("Post create", kLogDebug), 3);
    for (const char* name : {"Tellwick Settings", "A", "B", "New", "QuickTapModule"}) {
        EXPECT_TRUE(log.contains(std::string("vd so loaded init them: ") + name, kLogDebug));
    }
    // A refused module is never initialised.
    EXPECT_EQ(vdtest::probeNamed("Skip")->inits.load(), 0);
    EXPECT_EQ(vdtest::probeNamed("Old")->inits.load(), 0);
    // Each refusal is kept, by file, for the start-up summary.
    EXPECT_EQ(skippedLibraries().size(), 7u);
}

TEST_F(ModuleLoaderTest, EqualNamesKeepTheFolderOrder) {
    for (const char* copy : {"lib_vd_beta1.so", "lib_vd_beta2.so", "lib_vd_beta3.so"}) {
        ASSERT_TRUE(vdtest::installTestModule(p.root(), "lib_vd_beta.so", copy));
    }
    install({"lib_vd_alpha.so"});
    ASSERT_EQ(buildModuleRegistry(), 0);
    ASSERT_EQ(registryNames(), (std::vector<std::string>{"Tellwick Settings", "A", "A", "A", "B",
                                                         "QuickTapModule"}));

    // The folder's own order, as the loader saw it.
    std::vector<std::string> scanned;
    DIR* dir = opendir(p.hostPath("/system/lib64/").c_str());
    ASSERT_NE(dir, nullptr);
    while (struct dirent* e = readdir(dir)) {
        if (strncmp(e->d_name, "lib_vd_beta", 11) == 0) scanned.push_back(e->d_name);
    }
    closedir(dir);

    // Which copy each entry came from: the library that holds its virtual table.
    std::vector<std::string> loaded;
    for (size_t i = 1; i <= 3; i++) {
        Dl_info info{};
        ASSERT_NE(dladdr(*reinterpret_cast<void**>(moduleRegistry[i].module), &info), 0);
        loaded.push_back(std::filesystem::path(info.dli_fname).filename().string());
        EXPECT_EQ(vdtest::probeOf(moduleRegistry[i].module)->inits.load(), 1);
    }
    EXPECT_EQ(loaded, scanned);
}

TEST_F(ModuleLoaderTest, HandsTheLtsSettingsToEveryModule) {
    install({"lib_vd_alpha.so", "lib_vd_lts.so"});
    ASSERT_EQ(buildModuleRegistry(), 0);
    ASSERT_EQ(registryNames(),
              (std::vector<std::string>{"Tellwick Settings", "B", "LTSModule", "QuickTapModule"}));
    const Module::moduleConfig* lts = &moduleRegistry[2].settings;
    for (const modulePair& entry : moduleRegistry) {
        EXPECT_EQ(entry.module->ltsSettings, lts) << entry.settings.moduleName;
    }
    ASSERT_EQ(lts->configs.size(), 2u);
    EXPECT_STREQ(lts->configs[1].name, "LTS Days");
    EXPECT_STREQ(lts->configs[1].value, "7");
}

}  // namespace
