#include "standin/standin_view.h"

#include <jansson.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>

#include "service/protocol.h"

namespace vdstandin {

namespace {

using Json = std::unique_ptr<json_t, decltype(&json_decref)>;

Json wrap(json_t* value) { return Json(value, &json_decref); }

std::string dump(json_t* value, size_t flags) {
    char* text = json_dumps(value, flags | JSON_PRESERVE_ORDER);
    std::string out = text != nullptr ? text : "null";
    free(text);
    return out;
}

// Jansson refuses invalid UTF-8, which a daemon may well send; keep the bytes readable.
json_t* text(const std::string& s) {
    json_t* value = json_stringn(s.data(), s.size());
    if (value != nullptr) return value;
    std::string cleaned;
    for (unsigned char c : s) cleaned += c < 0x80 ? static_cast<char>(c) : '?';
    return json_stringn(cleaned.data(), cleaned.size());
}

json_t* optionalText(const std::optional<std::string>& s) { return s ? text(*s) : json_null(); }

bool parseInt(const std::string& s, int* out) {
    if (s.empty()) return false;
    errno = 0;
    char* end = nullptr;
    long v = strtol(s.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v < INT_MIN || v > INT_MAX) return false;
    *out = static_cast<int>(v);
    return true;
}

int64_t nowMillis() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

const vigild::protocol::Transaction* transaction(uint32_t code) {
    for (const auto& t : vigild::protocol::kTransactions) {
        if (t.code == code) return &t;
    }
    return nullptr;
}

DeviceSetting intSetting(const char* name, const char* help, int DeviceAnswers::*field) {
    return {name, help, true,
            [field](DeviceAnswers& a, const std::string& v) { return parseInt(v, &(a.*field)); },
            [field](const DeviceAnswers& a) { return std::to_string(a.*field); }};
}

DeviceSetting textSetting(const char* name, const char* help, std::string DeviceAnswers::*field) {
    return {name, help, false,
            [field](DeviceAnswers& a, const std::string& v) {
                a.*field = v;
                return true;
            },
            [field](const DeviceAnswers& a) { return a.*field; }};
}

DeviceSetting foregroundSetting(const char* name, const char* help, int index) {
    return {name, help, false,
            [index](DeviceAnswers& a, const std::string& v) {
                a.foregroundApplication[index] = v;
                return true;
            },
            [index](const DeviceAnswers& a) { return a.foregroundApplication[index]; }};
}

struct Module {
    std::string name;
    std::optional<bool> enabled;
};

// The modules of a configuration document, in its order.
std::vector<Module> modulesOf(const std::string& document) {
    std::vector<Module> modules;
    Json root = wrap(json_loads(document.c_str(), 0, nullptr));
    if (!json_is_object(root.get())) return modules;
    const char* name = nullptr;
    json_t* module = nullptr;
    json_object_foreach(root.get(), name, module) {
        Module m{name, std::nullopt};
        json_t* settings = json_object_get(module, "settings");
        size_t i = 0;
        json_t* setting = nullptr;
        json_array_foreach(settings, i, setting) {
            const char* settingName = json_string_value(json_object_get(setting, "name"));
            const char* type = json_string_value(json_object_get(setting, "type"));
            const char* value = json_string_value(json_object_get(setting, "value"));
            if (settingName != nullptr && type != nullptr &&
                std::string(settingName) == "Enable Module" && std::string(type) == "boolean") {
                m.enabled = value != nullptr && std::string(value) == "true";
                break;
            }
        }
        modules.push_back(std::move(m));
    }
    return modules;
}

std::optional<std::string> versionOf(const Summary& s, const std::string& name) {
    for (const auto& [component, version] : s.versions) {
        if (component == name) return version;
    }
    return std::nullopt;
}

std::vector<Module> modulesNow(const Summary& s) {
    if (s.document) return modulesOf(*s.document);
    std::vector<Module> modules;
    for (const auto& [component, version] : s.versions) {
        if (component != "vigild") modules.push_back({component, std::nullopt});
    }
    return modules;
}

std::optional<std::string> storageRoot(const StandinService& service) {
    std::string root = service.property("persist.sys.vd.storage_path");
    if (root.empty() || root == "UNKNOWN") return std::nullopt;
    return root;
}

bool secureLayout(const StandinService& service) {
    return service.property("persist.sys.vd.secure_mode") == "true";
}

bool connected(const Summary& s, int64_t now) {
    return s.waiting > 0 ||
           (s.lastCallMillis != 0 && now - s.lastCallMillis <= kConnectedWindowMillis);
}

json_t* argsJson(const Record& r) {
    json_t* args = json_array();
    for (const auto& s : r.strings) json_array_append_new(args, text(s));
    for (int32_t i : r.ints) json_array_append_new(args, json_integer(i));
    return args;
}

std::string quoted(const std::string& s, size_t limit) {
    std::string out = "\"";
    for (size_t i = 0; i < s.size(); i++) {
        if (i == limit) {
            out += "...\" (" + std::to_string(s.size()) + " bytes)";
            return out;
        }
        const unsigned char c = static_cast<unsigned char>(s[i]);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c < 0x20) {
            char hex[8];
            snprintf(hex, sizeof(hex), "\\x%02x", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

std::string hex(const std::vector<uint8_t>& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (uint8_t b : bytes) {
        out += digits[b >> 4];
        out += digits[b & 15];
    }
    return out;
}

std::string colourise(const std::string& s, const char* code, bool colour) {
    return colour ? std::string("\033[") + code + "m" + s + "\033[0m" : s;
}

const char* stateColour(int state) {
    switch (state) {
        case 0:
            return "33";  // yellow
        case 1:
            return "32";  // green
        default:
            return "36";  // cyan
    }
}

std::string ago(int64_t millis) {
    if (millis < 1000) return "just now";
    if (millis < 120000) return std::to_string(millis / 1000) + " s ago";
    if (millis < 7200000) return std::to_string(millis / 60000) + " min ago";
    return std::to_string(millis / 3600000) + " h ago";
}

}  // namespace

const char* stateName(int state) {
    switch (state) {
        case 0:
            return "stopped";
        case 1:
            return "running";
        case 2:
            return "transition";
        default:
            return "unknown";
    }
}

bool parseState(const std::string& text, int* out) {
    for (int s = 0; s <= 2; s++) {
        if (text == stateName(s)) {
            *out = s;
            return true;
        }
    }
    return parseInt(text, out);
}

const std::vector<DeviceSetting>& deviceSettings() {
    static const std::vector<DeviceSetting> table = {
        intSetting("bluetooth-enabled", "bluetoothIsEnabled answer",
                   &DeviceAnswers::bluetoothEnabled),
        intSetting("bluetooth-discoverable", "bluetoothIsDiscoverable answer",
                   &DeviceAnswers::bluetoothDiscoverable),
        intSetting("bluetooth-connected", "bluetoothIsConnected answer",
                   &DeviceAnswers::bluetoothConnected),
        intSetting("ambient-light", "ambientLight answer", &DeviceAnswers::ambientLight),
        intSetting("wan-signal", "wanSignalStrength answer", &DeviceAnswers::wanSignalStrength),
        intSetting("wifi-signal", "wifiSignalStrength answer", &DeviceAnswers::wifiSignalStrength),
        foregroundSetting("foreground-app", "first foregroundApplication string", 0),
        foregroundSetting("foreground-activity", "second foregroundApplication string", 1),
        textSetting("serial", "serialNumber answer", &DeviceAnswers::serialNumber),
        textSetting("model", "modelNumber answer", &DeviceAnswers::modelNumber),
        textSetting("bsp", "bspNumber answer", &DeviceAnswers::bspNumber),
        textSetting("dhcp", "dhcp answer", &DeviceAnswers::dhcp),
        textSetting("gateway", "gateway answer", &DeviceAnswers::gateway),
        textSetting("default-dir", "getDefaultDirPath answer", &DeviceAnswers::defaultDirPath),
        intSetting("sdcard-present", "isSDcardPresent answer (1 present, 0 not)",
                   &DeviceAnswers::sdcardPresent),
        textSetting("sdcard-path", "getSDcardPath answer, e.g. /storage/1A2B-3C4D/",
                    &DeviceAnswers::sdcardPath),
        textSetting("tellwick-version", "getTellwickVersion answer",
                    &DeviceAnswers::tellwickVersion),
        intSetting("user-valid", "isUserValidToDeploy answer (1 allowed, 0 not)",
                   &DeviceAnswers::userValidToDeploy),
        intSetting("delete-logs-param", "getDeleteLogsParam and deleteTwLogs answer",
                   &DeviceAnswers::deleteLogsParam),
        textSetting("qc-meta-id", "getQcMetaIdVersion answer", &DeviceAnswers::qcMetaIdVersion),
        {"state", "getState answer: a state name or number, or \"none\" to echo the last sent",
         true,
         [](DeviceAnswers& a, const std::string& v) {
             if (v == "none") {
                 a.stateOverride.reset();
                 return true;
             }
             int s = 0;
             if (!parseState(v, &s)) return false;
             a.stateOverride = s;
             return true;
         },
         [](const DeviceAnswers& a) {
             return a.stateOverride ? std::to_string(*a.stateOverride) : std::string("none");
         }},
    };
    return table;
}

const DeviceSetting* findDeviceSetting(const std::string& name) {
    for (const DeviceSetting& s : deviceSettings()) {
        if (name == s.name) return &s;
    }
    return nullptr;
}

std::string statusJson(const StandinService& service, int64_t now) {
    if (now == 0) now = nowMillis();
    const Summary s = service.summary();
    Json root = wrap(json_object());
    json_t* o = root.get();
    json_object_set_new(o, "state", json_string(s.state ? stateName(*s.state) : "unknown"));
    json_object_set_new(o, "stateCode", s.state ? json_integer(*s.state) : json_null());
    json_object_set_new(o, "storageRoot", optionalText(storageRoot(service)));
    json_object_set_new(o, "layout", json_string(secureLayout(service) ? "secure" : "normal"));
    json_object_set_new(o, "connected", json_boolean(connected(s, now)));
    json_object_set_new(o, "waiting", json_integer(s.waiting));
    json_object_set_new(o, "lastCallUnixMillis",
                        s.lastCallMillis != 0 ? json_integer(s.lastCallMillis) : json_null());
    json_object_set_new(o, "lastSeq", json_integer(static_cast<json_int_t>(s.lastSeq)));
    json_object_set_new(o, "daemonVersion", optionalText(versionOf(s, "vigild")));
    json_t* modules = json_array();
    for (const Module& m : modulesNow(s)) {
        json_t* entry = json_object();
        json_object_set_new(entry, "name", text(m.name));
        json_object_set_new(entry, "version", optionalText(versionOf(s, m.name)));
        json_object_set_new(entry, "enabled", m.enabled ? json_boolean(*m.enabled) : json_null());
        json_object_set_new(entry, "running",
                            m.enabled ? json_boolean(*m.enabled && s.state == 1) : json_null());
        json_array_append_new(modules, entry);
    }
    json_object_set_new(o, "modules", modules);
    json_object_set_new(o, "lastError", optionalText(s.lastError));
    json_t* reports = json_object();
    for (const auto& [method, record] : s.lastReports) {
        json_object_set_new(reports, method.c_str(), argsJson(record));
    }
    json_object_set_new(o, "reports", reports);
    json_t* device = json_object();
    for (const DeviceSetting& d : deviceSettings()) {
        const std::string value = d.get(s.answers);
        int n = 0;
        json_object_set_new(device, d.name,
                            !d.numeric            ? text(value)
                            : parseInt(value, &n) ? json_integer(n)
                                                  : json_null());
    }
    json_object_set_new(o, "device", device);
    return dump(o, JSON_COMPACT) + "\n";
}

std::string statusText(const StandinService& service, bool colour, int64_t now) {
    if (now == 0) now = nowMillis();
    const Summary s = service.summary();
    std::string out;
    auto line = [&out](const char* label, const std::string& value) {
        out += label;
        out += std::string(16 - std::min<size_t>(15, strlen(label)), ' ') + value + "\n";
    };
    line("state:", s.state ? colourise(stateName(*s.state), stateColour(*s.state), colour) + " (" +
                                 std::to_string(*s.state) + ")"
                           : std::string("none reported"));
    std::string daemon = connected(s, now) ? colourise("connected", "32", colour)
                                           : colourise("not connected", "31", colour);
    if (s.waiting > 0) {
        daemon += ", waiting for a command";
    } else if (s.lastCallMillis != 0) {
        daemon += ", last call " + ago(now - s.lastCallMillis);
    } else {
        daemon += ", no call yet";
    }
    line("daemon:", daemon);
    auto version = versionOf(s, "vigild");
    line("vigild version:", version ? *version : "not reported");
    auto root = storageRoot(service);
    line("storage:", (root ? *root : std::string("not chosen yet")) + " (" +
                         (secureLayout(service) ? "secure" : "normal") + " layout)");
    const std::vector<Module> modules = modulesNow(s);
    line("modules:", modules.empty() ? "none reported" : std::to_string(modules.size()));
    size_t width = 0;
    for (const Module& m : modules) width = std::max(width, m.name.size());
    for (const Module& m : modules) {
        std::string row = "  " + m.name + std::string(width - m.name.size() + 2, ' ');
        auto v = versionOf(s, m.name);
        row += (v ? *v : "-");
        if (m.enabled) {
            row += *m.enabled ? "  enabled" : "  disabled";
            if (*m.enabled && s.state == 1) row += ", " + colourise("running", "32", colour);
        }
        out += row + "\n";
    }
    line("last error:", s.lastError ? *s.lastError : "none");
    if (!s.lastReports.empty()) out += "last reports:\n";
    for (const auto& [method, record] : s.lastReports) {
        std::string args;
        for (const auto& str : record.strings) args += (args.empty() ? "" : ", ") + quoted(str, 80);
        for (int32_t i : record.ints) args += (args.empty() ? "" : ", ") + std::to_string(i);
        out += "  " + method + "(" + args + ")\n";
    }
    out += "device answers:\n";
    for (const DeviceSetting& d : deviceSettings()) {
        out += "  " + std::string(d.name) + " = " + d.get(s.answers) + "\n";
    }
    return out;
}

// "2026-11-25T08:15:02.123Z" (UTC) for programs, "08:15:02.123" (local time) for people.
static std::string clockText(int64_t unixMillis, bool utcIso) {
    const time_t seconds = static_cast<time_t>(unixMillis / 1000);
    struct tm t = {};
    if (utcIso) {
        gmtime_r(&seconds, &t);
    } else {
        localtime_r(&seconds, &t);
    }
    char when[40];
    const size_t n = strftime(when, sizeof(when), utcIso ? "%Y-%m-%dT%H:%M:%S" : "%H:%M:%S", &t);
    snprintf(when + n, sizeof(when) - n, utcIso ? ".%03dZ" : ".%03d",
             static_cast<int>(unixMillis % 1000));
    return when;
}

std::string traceEventJson(const TraceEvent& event, bool withBytes) {
    const auto* t = transaction(event.code);
    Json root = wrap(json_object());
    json_t* o = root.get();
    json_object_set_new(o, "seq", json_integer(static_cast<json_int_t>(event.seq)));
    json_object_set_new(o, "unixMillis", json_integer(event.unixMillis));
    json_object_set_new(o, "time", json_string(clockText(event.unixMillis, true).c_str()));
    json_object_set_new(o, "code", json_integer(event.code));
    json_object_set_new(o, "name", text(event.name));
    json_object_set_new(o, "direction",
                        json_string(t == nullptr                                ? "unknown"
                                    : t->reply == vigild::protocol::Reply::None ? "report"
                                                                                : "query"));
    json_object_set_new(o, "args", argsJson(event.decoded));
    json_object_set_new(o, "reply", text(event.replySummary));
    json_object_set_new(o, "status", json_integer(event.status));
    if (withBytes) {
        json_object_set_new(o, "requestHex", json_string(hex(event.request).c_str()));
        json_object_set_new(o, "replyHex", json_string(hex(event.reply).c_str()));
    }
    return dump(o, JSON_COMPACT);
}

std::string traceEventText(const TraceEvent& event, bool colour) {
    constexpr size_t kShown = 160;
    const auto* t = transaction(event.code);
    const std::string when = clockText(event.unixMillis, false);
    const bool query = t != nullptr && t->reply != vigild::protocol::Reply::None;
    std::string line = when + " #" + std::to_string(event.seq) + " " + (query ? "<- " : "-> ") +
                       colourise(event.name, query ? "36" : "35", colour) + "[" +
                       std::to_string(event.code) + "](";
    std::string args;
    for (const auto& s : event.decoded.strings)
        args += (args.empty() ? "" : ", ") + quoted(s, kShown);
    for (int32_t i : event.decoded.ints) args += (args.empty() ? "" : ", ") + std::to_string(i);
    line += args + ")";
    const bool refused = event.status != 0 || event.replySummary.rfind("exception: ", 0) == 0;
    if (refused) return line + " " + colourise("!! " + event.replySummary, "31", colour);
    if (!query) return line;
    const bool textual = t->reply == vigild::protocol::Reply::String ||
                         t->reply == vigild::protocol::Reply::StatusString ||
                         t->reply == vigild::protocol::Reply::StatusStrings;
    return line + " = " + (textual ? quoted(event.replySummary, kShown) : event.replySummary);
}

namespace {

// The settings of `module` in a document, with their values, in order.
std::vector<std::pair<std::string, std::string>> settingsOf(json_t* document, const char* module) {
    std::vector<std::pair<std::string, std::string>> out;
    json_t* settings = json_object_get(json_object_get(document, module), "settings");
    size_t i;
    json_t* entry;
    json_array_foreach(settings, i, entry) {
        const char* name = json_string_value(json_object_get(entry, "name"));
        const char* value = json_string_value(json_object_get(entry, "value"));
        if (name != nullptr && value != nullptr) out.emplace_back(name, value);
    }
    return out;
}

}  // namespace

std::vector<NotKept> valuesNotKept(const std::string& sent, const std::string& answer) {
    std::vector<NotKept> out;
    json_t* asked = json_loads(sent.c_str(), 0, nullptr);
    json_t* held = json_loads(answer.c_str(), 0, nullptr);
    const char* module;
    json_t* ignored;
    json_object_foreach(asked, module, ignored) {
        const auto now = settingsOf(held, module);
        for (const auto& [name, value] : settingsOf(asked, module)) {
            auto it = std::find_if(now.begin(), now.end(),
                                   [&name = name](const auto& s) { return s.first == name; });
            if (it != now.end() && it->second != value) {
                out.push_back({module, name, value, it->second});
            }
        }
    }
    json_decref(asked);
    json_decref(held);
    return out;
}

}  // namespace vdstandin
