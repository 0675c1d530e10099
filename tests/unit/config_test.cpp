// The configuration: the document and its kept text, what a received document or file may hold
// and what it changes and marks for restart, the QuickTap properties, log paths kept in the
// storage root, the file's saves, loads and torn writes, and the watch of the deployed files.
#include <gtest/gtest.h>
#include <jansson.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "config/config_file.h"
#include "config/config_rebuild.h"
#include "config/config_validation.h"
#include "config/document.h"
#include "config/file_watch.h"
#include "core/daemon_state.h"
#include "core/log.h"
#include "core/run_state.h"
#include "fakes/fake_module.h"
#include "fakes/test_platform.h"
#include "quicktap/quicktap.h"
#include "standin/standin_service.h"
#include "storage/log_deletion.h"
#include "storage/storage_root.h"
#include "storage/utility.h"

namespace {

using vigild::testing::makeSetting;
using vigild::testing::setting;
using Marks = std::vector<int>;
using namespace std::chrono_literals;

constexpr const char* kFile = "/sdcard/Tellwick/config.json";
constexpr const char* kCardRoot = "/storage/1A2B-3C4D/";
constexpr const char* kCard = "/storage/1A2B-3C4D/Tellwick/config.json";
constexpr const char* kNotArray = "Error in module JSON format expected array";
constexpr const char* kCount = "Error wrong number of elements returned in module ANRModule";
constexpr const char* kReloading = "config file load failed, load again";
constexpr const char* kReload = "vigild::watchConfigFileChange::needs to reload the config file";

// One change to a document: member `key` of setting `index` of `module` (of the module's object
// for index -1, of the top level for no module) set to `json`, or removed when `json` is empty;
// without a key the setting itself is replaced, appended or removed.
struct Edit {
    const char* module;
    int index;
    const char* key;
    std::string json;
};
Edit value(const char* module, int index, const std::string& text) {
    return {module, index, "value", "\"" + text + "\""};
}

// The document built from the registry as it stands, with `edits` made to it.
std::string doc(const std::vector<Edit>& edits = {}) {
    char* text = getConfig();
    json_t* d = json_loads(text, 0, nullptr);
    free(text);
    for (const Edit& e : edits) {
        json_t* module = e.module ? json_object_get(d, e.module) : nullptr;
        json_t* settings = json_object_get(module, "settings");
        json_t* parent = !module ? d : e.index < 0 ? module : json_array_get(settings, e.index);
        json_t* v = e.json.empty() ? nullptr : json_loads(e.json.c_str(), JSON_DECODE_ANY, nullptr);
        const bool inside = e.index < static_cast<int>(json_array_size(settings));
        e.key    ? (v ? json_object_set_new(parent, e.key, v) : json_object_del(parent, e.key))
        : !v     ? json_array_remove(settings, e.index)
        : inside ? json_array_set_new(settings, e.index, v)
                 : json_array_append_new(settings, v);
    }
    text = json_dumps(d, 0);
    const std::string out = text;
    free(text);
    json_decref(d);
    return out;
}

// Saves `text` to the file as the daemon does, holding configMutex.
void save(const std::string& text) {
    vigild::Lock lock(configMutex);
    saveFile(kFile, text.c_str());
}

// ANRModule: Enable Module, Count (int), Level (list), Log Path; StorageModule: Enable Module,
// the internal storage switch; QuickTapModule (disabled): Enable Module, Select Module, Log
// Duration (sec). A stand-in service answers.
class ConfigTest : public ::testing::Test {
  public:
    void SetUp() override {
        p_.setProperty("persist.sys.vd.storage_path", "/sdcard/");
        add("ANRModule", "true",
            {makeSetting("Count", "int", "5"), makeSetting("Level", "list", "1", {"a", "b", "c"}),
             makeSetting("Log Path", "string", "/sdcard/Tellwick/anr/")});
        add("StorageModule", "true",
            {makeSetting("Enable internal sdcard only", "boolean", "false")});
        add("QuickTapModule", "false",
            {makeSetting("Select Module", "int", "0"),
             makeSetting("Log Duration (sec)", "list", "0",
                         {"0", "1800", "3600", "7200", "10800", "14400"})});
        ASSERT_TRUE(service_.start());
    }
    void add(const char* name, const char* enable, std::vector<Module::config> extra) {
        modules_.add(name, enable);
        strcpy(moduleRegistry.back().settings.configs[0].defaultValue, enable);
        for (Module::config& c : extra) moduleRegistry.back().settings.configs.push_back(c);
    }
    // Which modules are marked for restart; clears the marks.
    static Marks marks() {
        Marks out;
        for (modulePair& entry : moduleRegistry) out.push_back(entry.restartNeeded.exchange(0));
        return out;
    }

    vigild::testing::TestPlatform p_;
    vigild::testing::FakeModules modules_;
    vdstandin::StandinService service_{p_.root()};
};

// One member per module in registry order; per setting its name, type, value (a string,
// whatever the type) and list, in that order; compact. Bytes no text can hold become "?".
TEST_F(ConfigTest, TheDocumentsExactText) {
    moduleRegistry.clear();
    add("Net", "true",
        {makeSetting("Level", "list", "1", {"low", "high"}),
         makeSetting("Note", "string", "caf\xc3")});
    add("Empty", "true", {});
    moduleRegistry.back().settings.configs.clear();
    char* text = getConfig();
    EXPECT_STREQ(text,
                 R"({"Net": {"settings": [{"name": "Enable Module", "type": "boolean", )"
                 R"("value": "true", "list": []}, {"name": "Level", "type": "list", "value": "1", )"
                 R"("list": ["low", "high"]}, {"name": "Note", "type": "string", "value": "caf?", )"
                 R"("list": []}]}, "Empty": {"settings": []}})");
    free(text);
}

// The document is kept and built again only when a setting it is made of differs: every kind
// of change (a value, the storage root, secure mode) shows in the next document and the next
// one sent, the kept text always equals a fresh build, and the storage root is looked up once
// per build, however many path settings.
TEST_F(ConfigTest, TheKeptDocumentFollowsEveryChange) {
    moduleRegistry[1].settings.configs.push_back(makeSetting("Storage Directory", "string", ""));
    const std::string secure = std::string(kSecureLogFolder) + "anr/";
    // Each change, and where the "Log Path" is after it.
    const std::pair<std::function<void()>, std::string> changes[] = {
        {[] { strcpy(setting(0, 1).value, "8"); }, "/sdcard/Tellwick/anr/"},
        {[&] { p_.setProperty("persist.sys.vd.secure_mode", "true"), updateConfigDefault(false); },
         "/sdcard/" + secure},
        {[&] {
             p_.setProperty("persist.sys.vd.storage_path", kCardRoot), p_.makeDir(kCardRoot);
             p_.setProperty("vold.sdcard.state", "encrypted");
         },
         kCardRoot + secure},
    };
    free(getConfig());
    int lookups = 0;
    for (const auto& record : service_.records()) lookups += record.method == "isSDcardPresent";
    EXPECT_EQ(lookups, 1);
    std::string before = doc();
    for (const auto& [change, logPath] : changes) {
        change();
        sendConfig();
        // What was sent is the kept text: it must equal a fresh build and differ from the last.
        const std::string root = storageRootForDocument();
        vigild::Lock lock(configMutex);
        char* fresh = buildConfigUncached(root);
        EXPECT_EQ(service_.configs().back(), fresh);
        EXPECT_NE(before, fresh) << logPath;
        before = fresh;
        free(fresh);
        EXPECT_EQ(setting(0, 3).value, logPath);
    }
}

// Each refusal is one error line, naming the step that found it. The number format is a length
// test only: what atoi reads, printed again, must be as long as the value.
TEST_F(ConfigTest, ReceivedDocumentsAreCheckedAgainstTheRegistry) {
    const std::pair<Edit, const char*> rows[] = {
        {{"ANRModule", 2, "list", R"(["a", "b", "c", "extra"])"}, nullptr},
        {{nullptr, 0, "StorageModule", ""},
         "The number of elements in the recived Json string is not equal to the number sent"},
        {{nullptr, 0, "StorageModule", "7"}, kNotArray},
        {{"ANRModule", 3, nullptr, ""}, kCount},
        {{"ANRModule", 4, nullptr, R"({"name": "X", "type": "int", "value": "1", "list": []})"},
         kCount},
        {{"ANRModule", 1, "name", ""}, "Error setting name was not the same  Count"},
        {{"ANRModule", 1, "type", R"("string")"}, "Error setting type was not the same"},
        {{"ANRModule", 1, "value", "5"}, "Value was not pressent"},
        {value("ANRModule", 0, "True"),
         "Value recived does not fit the expected format it was defined for"},
        {{"ANRModule", 2, "list", ""}, kNotArray},
        {{"ANRModule", 2, "list", R"(["a", "B", "c"])"}, "Error list values do not match"},
    };
    for (const auto& [edit, refusal] : rows) {
        const std::string text = doc({edit});
        p_.log().clear();
        EXPECT_EQ(validateConfig(text.c_str()), refusal ? -1 : 0) << text;
        EXPECT_EQ(p_.log().count(refusal ? refusal : "", kLogError), refusal ? 1 : 0) << text;
    }
    const std::tuple<int, const char*, bool> values[] = {
        {1, "12", true},   {1, "x", true}, {1, "-2147483648", true}, {2, "7", true},
        {1, "12a", false}, {1, "", false}, {1, "2147483648", false}, {2, "-1", false}};
    for (const auto& [index, text, fits] : values)
        EXPECT_EQ(validateConfig(doc({value("ANRModule", index, text)}).c_str()), fits ? 0 : -1)
            << index << " '" << text << "'";
    EXPECT_EQ(validateConfig("{\"ANRModule\":"), -1);
}

// Received values are copied by position (names are not compared here) and cut to fit; only
// the modules whose values changed are marked. Without a file every enabled module is marked.
TEST_F(ConfigTest, ReceivedValuesAreCopiedByPositionAndJudgedByTheModules) {
    const std::string longValue(400, 'v');
    updateConfig(
        doc({value("ANRModule", 3, longValue), {"ANRModule", 3, "name", R"("X")"}}).c_str());
    EXPECT_EQ(setting(0, 3).value, longValue.substr(0, VD_CONFIG_VALUE_SIZE - 1));
    EXPECT_EQ(marks(), (Marks{1, 0, 0}));
    moduleRestartNeeded("/sdcard/Tellwick/missing.json");
    EXPECT_EQ(marks(), (Marks{1, 1, 0}));

    // The modules' objections go to the service as one document, and only in mode 1.
    moduleValConfig(1);
    modules_[1].objections = {"Enable internal sdcard only", "no card", "dangling"};
    modules_[0].objections = {"Count", "too big"};
    moduleValConfig(0);
    moduleValConfig(1);
    // A lone unpaired element still makes the module answer, with an empty object.
    modules_[0].objections.clear();
    modules_[1].objections = {"unpaired"};
    moduleValConfig(1);
    EXPECT_EQ(service_.errorMessages(),
              (std::vector<std::string>{R"({"ANRModule": {"Count": "too big"}, "StorageModule": )"
                                        R"({"Enable internal sdcard only": "no card"}})",
                                        R"({"StorageModule": {}})"}));
}

// An accepted document is applied and marks its module; a refused one resets every setting and
// is then applied as far as it fits. (The save and the echo: DaemonE2ETest.)
TEST_F(ConfigTest, AcceptedAndRefusedDocuments) {
    p_.setProperty("persist.sys.vd.storage_path", "");
    setConfig(doc({value("ANRModule", 1, "42")}).c_str());
    EXPECT_EQ(p_.property("persist.sys.vd.storage_path"), "/sdcard/");
    // Not running: the restart is refused and the mark stays for the next one.
    EXPECT_EQ(marks(), (Marks{1, 0, 0}));

    strcpy(setting(0, 2).value, "2");
    setConfig(doc({value("ANRModule", 1, "9"), {"ANRModule", 2, "value", ""}}).c_str());
    EXPECT_STREQ(setting(0, 1).value, "9");
    EXPECT_STREQ(setting(0, 2).value, "1");
    EXPECT_EQ(marks(), (Marks{1, 0, 0}));

    // A change of storage place marks every enabled module, also when the file watch applies
    // the same document in between.
    const std::string changed = doc({value("StorageModule", 1, "true")});
    vigild::testing::AtSyncPoint watch("setConfig.applied", [&] { updateConfig(changed.c_str()); });
    setConfig(changed.c_str());
    EXPECT_EQ(marks(), (Marks{1, 1, 0}));

    // When the defaults are refused too, the reset stays and nothing is sent or restarted (a
    // restart, even refused, would report the state).
    service_.clearRecords();
    moduleRegistry[0].settings.configs.push_back(makeSetting("Broken", "int", "12a"));
    setConfig("{}");
    EXPECT_STREQ(setting(0, 1).value, "5");
    EXPECT_TRUE(service_.configs().empty() && service_.states().empty());
}

// A file is matched by name and type: what it may lack or add, what ends the call before the
// modules judge it, and the modules a change marks (1 ANRModule, 2 StorageModule), also where
// the device overrules the file: the storage property wins, secure mode keeps the log path.
TEST_F(ConfigTest, ShapesAndChangesOfTheFile) {
    p_.setProperty("persist.sys.vd.secure_mode", "true");
    const std::tuple<Edit, int, bool, int> rows[] = {
        {{}, 0, true, 0},
        {{"ANRModule", 9, nullptr, R"({"name": "X", "type": "int", "value": "1"})"}, 0, true, 0},
        {{"ANRModule", 1, nullptr, ""}, 1, true, 0},
        {{"ANRModule", 1, "type", R"("string")"}, 1, true, 0},
        {{nullptr, 0, "QuickTapModule", ""}, 0, true, 0},  // accepted off Alder
        {{nullptr, 0, "ANRModule", ""}, -1, true, 0},
        {{"ANRModule", -1, "settings", ""}, -1, true, 0},
        {{"ANRModule", 9, nullptr, R"({"value": "x"})"}, 0, true, 0},  // no type: skipped
        {{"ANRModule", 1, "name", ""}, -1, false, 0},
        {{"ANRModule", 1, "value", "9"}, -1, false, 0},
        {value("StorageModule", 1, "true"), 1, true, 2},
        {value("ANRModule", 3, "/sdcard/x/"), 1, true, 1},
        {value("ANRModule", 1, "9"), 1, true, 1},
    };
    for (const auto& [edit, result, judged, marked] : rows) {
        const std::string text = doc({edit});
        const int before = modules_[0].judged;
        EXPECT_EQ(makeUpdateConfig(text.c_str()), result) << text;
        EXPECT_EQ(modules_[0].judged - before, judged ? 1 : 0) << text;
        EXPECT_EQ(marks(), (Marks{marked & 1, marked >> 1, 0})) << text;
    }
    EXPECT_STREQ(setting(0, 3).value, "/sdcard/Tellwick/anr/");
    EXPECT_STREQ(setting(1, 1).value, "false");
    p_.setProperty("ro.build.project", "Alder");
    EXPECT_EQ(makeUpdateConfig(doc({{nullptr, 0, "QuickTapModule", ""}}).c_str()), -1);
}

// The QuickTap settings drive the QuickTap properties; at a QuickTap start the property wins.
TEST_F(ConfigTest, QuickTapSettingsAndProperties) {
    // At start; the property; the file's Enable Module, Select Module and Log Duration (sec);
    // the values taken; the module time and time callback properties.
    const char* const rows[][9] = {
        // Taken as they are: the range test lets every number through.
        {"", "", "false", "23", "6", "23", "6", "default_6", "true"},
        {"", "12_3600", "true", "1", "0", "1", "0", "audio_0", "false"},
        // Seconds of an option stand for its index, 0 to 5 is an index already, and a length no
        // option has leaves the file's duration.
        {"start", "12_3600", "true", "5", "1", "12", "2", "bluetooth_2", "true"},
        {"start", "7_4", "true", "5", "1", "7", "4", "battery_4", "true"},
        {"start", "3_999", "true", "5", "1", "3", "1", "audio_bluetooth_1", "true"},
    };
    for (const auto& row : rows) {
        quickTapModeAtStart = row[0][0] != '\0';
        p_.setProperty("persist.sys.vd.quick_tap_module_time", row[1]);
        std::vector<Edit> edits;
        for (int i : {0, 1, 2}) edits.push_back(value("QuickTapModule", i, row[i + 2]));
        makeUpdateConfig(doc(edits).c_str());
        for (int i : {0, 1, 2}) EXPECT_STREQ(setting(2, i).value, row[i ? i + 4 : 2]) << row[3];
        EXPECT_EQ(p_.property("persist.sys.vd.quick_tap"), row[2]);
        EXPECT_EQ(p_.property("persist.sys.vd.quick_tap_module_time"), row[7]);
        EXPECT_EQ(p_.property("persist.sys.vd.quick_tap_time_cb"), row[8]);
    }
}

// Where log paths go: into the storage root (the module's own folder) when the document is
// built, and at the upkeep after a change of root, which also tells whether the module must
// restart and the file be rewritten (and sent again). Only "Log Path" and "Storage Directory"
// settings of type string are paths, whatever their case.
TEST_F(ConfigTest, LogPathsAreKeptInTheStorageRoot) {
    const std::string secure = "/sdcard/" + std::string(kSecureLogFolder), card = "/storage/C/";
    const std::string anr = "/sdcard/Tellwick/anr/", onCard = card + "Tellwick/anr/";
    const struct {
        std::string root;
        bool secure;
        std::string value, built, kept;
        bool restart, saved;
    } rows[] = {
        {card, false, onCard, onCard, onCard, false, false},
        {card, false, anr, onCard, onCard, true, true},
        {"/sdcard/", false, anr, anr, anr, false, false},
        {"/sdcard/", false, "/storage/sdcard1/Tellwick/anr/", anr, anr, false, true},
        {"/sdcard/", false, "", anr, "/sdcard/", false, true},
        {"/sdcard/", true, anr, anr, secure + "anr/", false, true},
        // The last row leaves the root and mode as the fixture set them.
        {"/sdcard/", false, secure + "anr/", secure + "anr/", anr, false, true},
    };
    for (const auto& row : rows) {
        p_.setProperty("persist.sys.vd.storage_path", row.root);
        p_.setProperty("persist.sys.vd.secure_mode", row.secure ? "true" : "false");
        p_.writeFile(configFilePath(row.root), "sentinel");
        restartAfterPathChange = false;
        strcpy(setting(0, 3).value, row.value.c_str());
        doc();
        EXPECT_EQ(setting(0, 3).value, row.built) << row.value;
        strcpy(setting(0, 3).value, row.value.c_str());
        updateConfigDefault(false);
        EXPECT_EQ(setting(0, 3).value, row.kept) << row.value;
        EXPECT_EQ(restartAfterPathChange, row.restart) << row.value;
        EXPECT_EQ(p_.readFile(configFilePath(row.root)) != "sentinel", row.saved) << row.value;
    }
    for (const auto& [name, type, path] : {std::tuple{"log path", "STRING", true},
                                           {"Storage Directory", "string", true},
                                           {"Log Paths", "string", false},
                                           {"Log Path", "int", false}}) {
        setting(0, 3).name = name;
        setting(0, 3).type = type;
        for (auto keep : {+[] { doc(); }, +[] { updateConfigDefault(false); }}) {
            strcpy(setting(0, 3).value, "/data/x/");
            keep();
            EXPECT_EQ(setting(0, 3).value, path ? anr : "/data/x/") << name << " " << type;
        }
    }
}

// A save replaces the file whole and leaves nothing beside it (links: HostileStorageTest). A
// link where a save of an earlier build left its copy is removed, not put back (the put-back of
// a whole copy: the torn-write test).
TEST_F(ConfigTest, Saves) {
    saveFile(kFile, "first");
    EXPECT_TRUE(p_.log().contains("Error opening file : " + std::string(kFile) + " errno : 2", 6));
    p_.writeFile(kFile, "a longer first text");
    std::filesystem::create_symlink("elsewhere", p_.hostPath(std::string(kFile) + ".bak"));
    EXPECT_EQ(takeLeftConfigCopy(kFile), kFile);
    saveFile(kFile, "second");
    saveFile(kFile, nullptr);
    EXPECT_EQ(p_.readFile(kFile), "second");
    std::vector<std::string> names;
    for (const auto& e : std::filesystem::directory_iterator(p_.hostPath("/sdcard/Tellwick")))
        names.push_back(e.path().filename());
    EXPECT_EQ(names, std::vector<std::string>{"config.json"});

    // Without the service there is no right to deploy.
    service_.stop();
    EXPECT_EQ(isPermissionGrantedToDeployConfig(), 0);
}

// A missing file or one equal to the settings changes nothing (0); a refused one is kept beside
// the file and every setting goes back to its default (its log line: DaemonE2ETest).
TEST_F(ConfigTest, Loads) {
    EXPECT_EQ(loadConfigFile(kFile), 0);
    p_.writeFile(kFile, doc());
    EXPECT_EQ(loadConfigFile(kFile), 0);
    strcpy(setting(0, 1).value, "7");
    const std::string broken = R"({"ANRModule": {"settings": [)";
    p_.writeFile(kFile, broken);
    EXPECT_EQ(loadConfigFile(kFile), 1);
    EXPECT_TRUE(p_.log().contains(kReloading, kLogError));
    EXPECT_EQ(p_.readFile(std::string(kFile) + ".rejected"), broken);
    EXPECT_STREQ(setting(0, 1).value, "5");
    EXPECT_EQ(service_.configs().back(), p_.readFile(kFile));
}

// The file calls in order: written (w), synced (s), renamed (r).
struct CallOrder : vigild::platform::Files {
    vigild::platform::Files& to;
    std::string seq;
    explicit CallOrder(vigild::platform::Files& files) : to(files) {}
    ssize_t write(int f, const void* d, size_t n) override { return seq += 'w', to.write(f, d, n); }
    ssize_t copyRange(int i, int o, size_t n) override { return seq += 'w', to.copyRange(i, o, n); }
    int fsync(int f) override { return seq += 's', to.fsync(f); }
    int renameat(int a, const char* b, int c, const char* d) override {
        return seq += 'r', to.renameat(a, b, c, d);
    }
};

// A full disk, or a stop as by a kill, at each write, sync and rename of every path that writes
// a file the daemon reads back as its configuration: the file holds all of the old text or all
// of the new, and loading it never falls back to the defaults. New text is synced before the
// rename that puts it in place.
TEST_F(ConfigTest, AFailureAtAnyStepOfAConfigurationWriteLeavesAWholeFile) {
    using Fault = vigild::testing::FaultyFiles::Fault;
    const std::string before = doc({value("ANRModule", 1, "1")});
    const std::string after = doc({value("ANRModule", 1, "222222222")});
    const std::string secure = "/sdcard/" + std::string(kSecureLogFolder) + "config.json";
    const struct {
        std::string file, source;
        std::function<void()> write;
    } paths[] = {
        {kFile, "", [&] { save(after); }},
        {kFile, "/sdcard/Tellwick/quicktap/default/config.json", copyQuickTapConfigFilePath},
        {secure, kFile, [] { copyConfigFileToSecurePath(kFile); }},
        {kFile, std::string(kFile) + ".bak", [] { takeLeftConfigCopy(kFile); }},
    };
    for (const auto& path : paths) {
        p_.setProperty("persist.sys.vd.secure_mode", path.file == secure ? "true" : "false");
        auto prepare = [&] {
            p_.writeFile(path.file, before);
            if (!path.source.empty()) p_.writeFile(path.source, after);
        };
        prepare();
        CallOrder order(p_.files());
        vigild::platform::current().files = &order;
        p_.files().arm(0);
        path.write();
        vigild::platform::current().files = &p_.files();
        const int steps = p_.files().calls();
        ASSERT_EQ(p_.readFile(path.file), after) << order.seq;
        EXPECT_EQ(order.seq.find("wr"), std::string::npos) << order.seq;
        // Steps 1 to n fail, n+1 to 2n stop.
        for (int i = 0; i < 2 * steps; i++) {
            SCOPED_TRACE(order.seq + " " + std::to_string(i));
            prepare();
            p_.files().arm(i % steps + 1, ENOSPC, i < steps ? Fault::kFail : Fault::kStop);
            try {
                path.write();
            } catch (const vigild::testing::StoppedHere&) {
            }
            p_.files().arm(0);
            const std::string text = p_.readFile(path.file);
            EXPECT_TRUE(text == before || text == after) << text;
            p_.log().clear();
            loadConfigFile(path.file.c_str());
            EXPECT_FALSE(p_.log().contains(kReloading));
        }
    }
}

// The deployed file watch, with real inotify: one change per 5-second poll, each read by the
// next pass. Whether each made the watch reload, the Count then in force and the modules
// flagged while running (one line per module with an "Enable Module"); the files deleted are
// written back, the internal one with the configuration in force.
using Change = std::function<void(ConfigTest&)>;
enum Device { kCardIn = 1, kSecure = 2, kRun = 4, kRight = 8 };
struct Scenario {
    const char* name;
    int device;
    std::vector<Change> changes;
    std::vector<bool> reloads;
    const char* count;
    int flags;
    friend void PrintTo(const Scenario& s, std::ostream* out) { *out << s.name; }
};
Change erase(const char* path) {
    return [=](ConfigTest& t) { unlink(t.p_.hostPath(path).c_str()); };
}
// Written in place, or replaced as an editor that saves by rename does.
Change edit(const char* path, const char* count, bool byRename = false) {
    return [=](ConfigTest& t) {
        const std::string file = path + std::string(byRename ? ".new" : "");
        t.p_.writeFile(file, doc({value("ANRModule", 1, count)}));
        rename(t.p_.hostPath(file).c_str(), t.p_.hostPath(path).c_str());
    };
}
void saveOwn(ConfigTest&) { save(doc()); }
void copyOwn(ConfigTest&) { copyFile(kFile, kCard); }
const Scenario kScenarios[] = {
    // The daemon's own saves and copies are renames too, but no edits.
    {"OwnRenames", kCardIn | kRun, {saveOwn, copyOwn, edit(kFile, "7", true)}, {0, 0, 1}, "7", 3},
    // Writes in place are no edits (a later reaction loads them); the card's file is not
    // watched for writes.
    {"InPlace", kCardIn, {edit(kFile, "6"), edit(kCard, "3"), erase(kCard)}, {0, 0, 1}, "6", 0},
    // What the re-arm after the card's reaction left in the queue hides no deletion.
    {"DeletionsOneAfterTheOther", kCardIn, {erase(kCard), erase(kFile)}, {1, 1}, "5", 0},
    {"SecureEditWithTheRight", kSecure | kRight, {edit(kFile, "9", true)}, {1}, "9", 0},
    {"SecureEditWithoutTheRight", kSecure, {edit(kFile, "9", true)}, {1}, "5", 0},
};
class WatchTest : public ConfigTest, public ::testing::WithParamInterface<Scenario> {};
INSTANTIATE_TEST_SUITE_P(Scenarios, WatchTest, ::testing::ValuesIn(kScenarios),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_P(WatchTest, ReactionsToChangesOfTheWatchedFiles) {
    const Scenario& row = GetParam();
    service_.updateAnswers([&](vdstandin::DeviceAnswers& a) {
        a.userValidToDeploy = (row.device & (kSecure | kRight)) != kSecure;
        a.sdcardPresent = row.device & kCardIn;
        a.sdcardPath = kCardRoot;
    });
    if (row.device & kCardIn) {
        // The card is there, the storage root stays internal.
        p_.setProperty("persist.sys.vd.internal_sd", "true");
        p_.makeDir(std::string(kCardRoot) + "Tellwick/");
    }
    p_.setProperty("persist.sys.vd.secure_mode", row.device & kSecure ? "true" : "false");
    p_.enableDebugLog();
    if (row.device & kRun) start();
    const int starts = modules_[0].starts;
    std::vector<bool> reloads;
    size_t done = 0;
    int seen = 0;
    p_.clock().onSleep([&](std::chrono::milliseconds d) {
        if (d != 5s) return;
        if (done > 0) reloads.push_back(p_.log().count(kReload) > seen);
        seen = p_.log().count(kReload);
        if (done == row.changes.size()) exitRequested = 1;
        if (done < row.changes.size()) row.changes[done++](*this);
    });
    ASSERT_TRUE(vigild::testing::finishesWithin([] { watchConfigFileChange(); }, 20s));
    p_.clock().onSleep(nullptr);
    EXPECT_EQ(reloads, row.reloads);
    EXPECT_STREQ(setting(0, 1).value, row.count);
    EXPECT_EQ(p_.log().count("vigild::moduleRestartNeeded::Tellwick folder deleted"), row.flags);
    EXPECT_EQ(modules_[0].starts > starts, row.flags > 0);
    EXPECT_EQ(p_.readFile(kFile), doc());
    EXPECT_EQ(p_.exists(kCard), (row.device & kCardIn) != 0);
    EXPECT_EQ(row.device & kSecure ? service_.configs().back() : doc(), doc());
}

// A file that shows up during the re-check of a missing one is left to the next event.
TEST_F(ConfigTest, AFileAppearingDuringTheRecheckIsNotLoaded) {
    const std::string deployed = doc({value("ANRModule", 1, "1")});
    p_.clock().onSleep([&](std::chrono::milliseconds d) {
        if (d == 100ms) p_.writeFile(kFile, deployed);
    });
    watchConfig();
    EXPECT_STRNE(setting(0, 1).value, "1");
    EXPECT_EQ(p_.readFile(kFile), deployed);
}

}  // namespace
