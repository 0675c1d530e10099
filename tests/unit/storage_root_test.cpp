#include "storage/storage_root.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <thread>
#include <vector>

#include "fakes/test_platform.h"
#include "standin/standin_service.h"

using vigild::testing::TestPlatform;

namespace {

constexpr const char* kStoragePath = "persist.sys.vd.storage_path";
constexpr const char* kSecureFolder = "Android/data/com.tandril.tellwick/Tellwick/secure/log_data/";
constexpr const char* kChown =
    "chown -R system:ext_data_rw /sdcard/Android/data/com.tandril.tellwick/";

class StorageRootTest : public ::testing::Test {
  protected:
    StorageRootTest() { p.enableDebugLog(); }

    TestPlatform p;
};

TEST_F(StorageRootTest, UnsetOrForeignPathGivesInternal) {
    EXPECT_EQ(getDefaultDirectory(), "/sdcard/");
    EXPECT_FALSE(p.exists("/sdcard/Tellwick"));
    EXPECT_FALSE(p.properties().value(kStoragePath).has_value());
    EXPECT_TRUE(p.log().contains("getDefaultDirectory returning /sdcard/"));

    // A path outside the roots is rewritten to internal storage.
    p.setProperty(kStoragePath, "/data/logs/");
    EXPECT_EQ(getDefaultDirectory(), "/sdcard/");
    EXPECT_EQ(p.property(kStoragePath), "/sdcard/");
    EXPECT_TRUE(p.exists("/sdcard/Tellwick"));
    EXPECT_FALSE(p.exists(std::string("/sdcard/") + kSecureFolder));
}

// Table tests below make one platform per row, so they use no fixture.
TEST(StorageRootTable, InternalSecureLayoutAndOwnershipFixUp) {
    // The platform name (nullptr: unset) decides whether ownership is fixed up.
    for (const auto& [name, chown] : std::initializer_list<std::pair<const char*, bool>>{
             {nullptr, true}, {"cedar", false}, {"cedar2", true}}) {
        TestPlatform q;
        if (name != nullptr) q.setProperty("ro.tandril.platform.name", name);
        q.setProperty("persist.sys.vd.secure_mode", "true");
        q.setProperty(kStoragePath, "/sdcard/");
        q.writeFile("/sdcard/Tellwick/old.log", "x");
        q.writeFile("/sdcard/Tellwick/config.json", "{}");
        EXPECT_EQ(getDefaultDirectory(), "/sdcard/");
        EXPECT_TRUE(q.exists(std::string("/sdcard/") + kSecureFolder));
        // Switching secure mode on empties the normal layout but keeps the configuration.
        EXPECT_FALSE(q.exists("/sdcard/Tellwick/old.log"));
        EXPECT_TRUE(q.exists("/sdcard/Tellwick/config.json"));
        auto commands = q.processes().commands();
        bool ran = std::find(commands.begin(), commands.end(), kChown) != commands.end();
        EXPECT_EQ(ran, chown) << (name ? name : "(unset)");
    }
}

TEST_F(StorageRootTest, CardIsAdoptedInNormalModeUnlessLoggingInternally) {
    p.setProperty(kStoragePath, "/sdcard/");
    p.makeDir("/storage/emulated");
    p.makeDir("/storage/self");
    p.writeFile(std::string("/storage/1A2B-3C4D/") + kSecureFolder + "secret.log", "s");
    p.writeFile(std::string("/sdcard/") + kSecureFolder + "secret.log", "s");

    EXPECT_EQ(getDefaultDirectory(), "/storage/1A2B-3C4D/");
    EXPECT_EQ(p.property(kStoragePath), "/storage/1A2B-3C4D/");
    EXPECT_TRUE(p.exists("/storage/1A2B-3C4D/Tellwick"));
    EXPECT_FALSE(p.exists(std::string("/storage/1A2B-3C4D/") + kSecureFolder));
    // The secure layout on internal storage goes too.
    EXPECT_FALSE(p.exists(std::string("/sdcard/") + kSecureFolder));

    // Internal storage logging keeps logs off the card.
    std::filesystem::remove_all(p.hostPath("/storage/1A2B-3C4D/Tellwick"));
    p.setProperty("persist.sys.vd.internal_sd", "true");
    p.setProperty(kStoragePath, "/sdcard/");
    EXPECT_EQ(getDefaultDirectory(), "/sdcard/");
    EXPECT_EQ(p.property(kStoragePath), "/sdcard/");
    EXPECT_FALSE(p.exists("/storage/1A2B-3C4D/Tellwick"));
}

TEST_F(StorageRootTest, SecureModeRefusesUnencryptedCardAndAcceptsEncryptedOne) {
    p.setProperty("persist.sys.vd.secure_mode", "true");
    p.setProperty(kStoragePath, "/sdcard/");
    p.makeDir("/storage/1A2B-3C4D");
    p.writeFile("/storage/1A2B-3C4D/Tellwick/plain.log", "x");

    EXPECT_EQ(getDefaultDirectory(), "/sdcard/");
    EXPECT_EQ(p.property(kStoragePath), "/sdcard/");
    EXPECT_TRUE(p.exists(std::string("/sdcard/") + kSecureFolder));
    EXPECT_FALSE(p.exists(std::string("/storage/1A2B-3C4D/") + kSecureFolder));
    EXPECT_TRUE(p.exists("/storage/1A2B-3C4D/Tellwick/plain.log"));
    EXPECT_TRUE(p.log().contains("external sdcard ecrypt check == 0"));

    p.setProperty("vold.sdcard.state", "encrypted");
    EXPECT_EQ(getDefaultDirectory(), "/storage/1A2B-3C4D/");
    EXPECT_EQ(p.property(kStoragePath), "/storage/1A2B-3C4D/");
    EXPECT_TRUE(p.exists(std::string("/storage/1A2B-3C4D/") + kSecureFolder));
    EXPECT_FALSE(p.exists("/storage/1A2B-3C4D/Tellwick/plain.log"));
    EXPECT_TRUE(p.log().contains("external sdcard ecrypt check == 1"));
}

TEST_F(StorageRootTest, CardThatAppearsAndDisappears) {
    p.setProperty(kStoragePath, "/sdcard/");
    EXPECT_EQ(getDefaultDirectory(), "/sdcard/");

    p.makeDir("/storage/ABCD-0123");
    EXPECT_EQ(getDefaultDirectory(), "/storage/ABCD-0123/");
    EXPECT_EQ(p.property(kStoragePath), "/storage/ABCD-0123/");

    std::filesystem::remove_all(p.hostPath("/storage/ABCD-0123"));
    // The property still names the card: internal folders are made, the card path returned.
    EXPECT_EQ(getDefaultDirectory(), "/storage/ABCD-0123/");
    EXPECT_TRUE(p.exists("/sdcard/Tellwick"));
    EXPECT_FALSE(p.exists("/storage/ABCD-0123"));
}

TEST_F(StorageRootTest, ThreadsResolvingAtOnceAllGetTheCard) {
    p.setProperty(kStoragePath, "/sdcard/");
    p.makeDir("/storage/1A2B-3C4D");
    std::vector<std::string> seen[4];
    std::vector<std::thread> threads;
    for (auto& results : seen) {
        threads.emplace_back([&results] {
            for (int i = 0; i < 25; i++) results.push_back(getDefaultDirectory());
        });
    }
    for (auto& t : threads) t.join();
    for (const auto& results : seen) {
        for (const auto& root : results) EXPECT_EQ(root, "/storage/1A2B-3C4D/");
    }
}

TEST(StorageRootTable, CardFolderNames) {
    struct {
        const char* name;
        bool directory, card;
    } cases[] = {
        {"1A2B-3C4D", true, true},   {"1a2b-3c4d", true, true},  {"1A2B3C4D", true, false},
        {"1A2B-3C4DX", true, false}, {"G12B-3C4D", true, false}, {"emulated", true, false},
        {"1A2B-3C4D", false, false},
    };
    for (const auto& c : cases) {
        TestPlatform q;
        std::string path = std::string("/storage/") + c.name;
        c.directory ? q.makeDir(path) : q.writeFile(path, "not a folder");
        std::string found = "untouched";
        EXPECT_EQ(isExternalSDCardPresentAndReturnPath(found), c.card) << c.name;
        EXPECT_EQ(found, c.card ? path : "untouched") << c.name;
    }
    // A link named like a card is not a card.
    TestPlatform q;
    q.makeDir("/elsewhere");
    q.makeDir("/storage");
    ASSERT_EQ(symlink(q.hostPath("/elsewhere").c_str(), q.hostPath("/storage/1A2B-3C4D").c_str()),
              0);
    std::string found = "untouched";
    EXPECT_FALSE(isExternalSDCardPresentAndReturnPath(found));
    EXPECT_EQ(found, "untouched");
}

TEST_F(StorageRootTest, StorageRootPatternAndCorrectedLogPaths) {
    for (const char* yes : {"/sdcard/", "/storage/1A2B-3C4D/Tellwick/"}) {
        EXPECT_TRUE(startsWithSdcardOrStorage(yes)) << yes;
    }
    for (const char* no : {"/sdcard", "/data/logs/", " /sdcard/", ""}) {
        EXPECT_FALSE(startsWithSdcardOrStorage(no)) << no;
    }

    const std::string s = std::string("/sdcard/") + kSecureFolder;
    struct {
        const char *module, *normal, *secure;
    } cases[] = {
        {"ANRModule", "/sdcard/Tellwick/anr/", "anr/"},
        {"btsnooplogmodule", "/sdcard/Tellwick/btsnooplog/", "btsnooplog/"},
        {"LTSModule", "/sdcard/TellwickLTS/", "TellwickLTS/"},
        {"qxdmmodule", "/sdcard/Tellwick/qxdm/logs/", "qxdm/logs/"},
        {"QXDMMODULE", "/sdcard/Tellwick/qxdm/logs/", "qxdm/logs/"},
        {"TombstoneModule", "/sdcard/Tellwick/tombstone/", "tombstone/"},
        {"LogcatModule", "/sdcard/Tellwick/", ""},
        {"ANRModule2", "/sdcard/Tellwick/", ""},
    };
    p.setProperty(kStoragePath, "/sdcard/");
    for (const auto& c : cases) EXPECT_EQ(returnCorrectedLogPath(c.module), c.normal) << c.module;
    p.setProperty("persist.sys.vd.secure_mode", "true");
    for (const auto& c : cases) {
        EXPECT_EQ(returnCorrectedLogPath(c.module), s + c.secure) << c.module;
    }
    EXPECT_TRUE(p.log().contains("utility::returnCorrectedLogPath::isTwSecureMode == 1"));
}

TEST(StorageRootTable, FileOnCardWaitsFiveTriesForTheCard) {
    TestPlatform p;
    p.writeFile("/sdcard/Tellwick/present.txt", "x");
    EXPECT_TRUE(isFileExistsExtSDcard("/sdcard/Tellwick/present.txt"));
    EXPECT_FALSE(isFileExistsExtSDcard("/sdcard/Tellwick/missing.txt"));
    EXPECT_EQ(p.clock().sleepCount(), 0u);

    EXPECT_FALSE(isFileExistsExtSDcard("/storage/1A2B-3C4D/config.json"));
    auto sleeps = p.clock().sleeps();
    ASSERT_EQ(sleeps.size(), 4u);
    for (auto d : sleeps) EXPECT_EQ(d, std::chrono::seconds(5));

    // The card mounts during the second wait: the third try finds it.
    TestPlatform q;
    q.clock().onSleep([&](std::chrono::milliseconds) {
        if (q.clock().sleepCount() == 2) q.makeDir("/storage/1A2B-3C4D");
    });
    EXPECT_TRUE(isFileExistsExtSDcard("/storage/1A2B-3C4D/config.json"));
    EXPECT_EQ(q.clock().sleepCount(), 2u);
}

TEST_F(StorageRootTest, DeviceQuestionsPutToTheService) {
    EXPECT_FALSE(isSDCARD_present());
    EXPECT_EQ(getSDCARD_path(), "/sdcard/");

    vdstandin::StandinService service(p.root());
    ASSERT_TRUE(service.start());
    struct {
        int present;
        const char* path;
        bool expectPresent;
        const char* expectPath;
    } cases[] = {
        {1, "/storage/1A2B-3C4D", true, "/storage/1A2B-3C4D/"},
        {2, "/storage/1A2B-3C4D/", true, "/storage/1A2B-3C4D/"},
        {0, "/sdcard/", false, "/sdcard/"},
        {-1, "", false, "/sdcard/"},
    };
    for (const auto& c : cases) {
        service.updateAnswers([&](vdstandin::DeviceAnswers& a) {
            a.sdcardPresent = c.present;
            a.sdcardPath = c.path;
        });
        EXPECT_EQ(isSDCARD_present(), c.expectPresent) << c.present;
        EXPECT_EQ(getSDCARD_path(), c.expectPath) << c.path;
    }
}

TEST_F(StorageRootTest, ModeQuestionsMatchOnlyTheExactValue) {
    struct {
        const char* key;
        bool (*question)();
        const char* yes;
    } cases[] = {
        {"persist.sys.vd.secure_mode", isTellwickSecureModeEnabled, "true"},
        {"persist.sys.vd.internal_sd", isInternalSDcardEnabledLogging, "true"},
        {"ro.build.project", isDeviceAlder, "Alder"},
    };
    for (const auto& c : cases) {
        EXPECT_FALSE(c.question()) << c.key << " unset";
        for (const std::string& no : {std::string(c.yes) + "1", std::string("TRUE")}) {
            p.setProperty(c.key, no);
            EXPECT_FALSE(c.question()) << c.key << " " << no;
        }
        p.setProperty(c.key, c.yes);
        EXPECT_TRUE(c.question()) << c.key;
    }
}

}  // namespace
