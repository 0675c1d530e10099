// What the stand-in shows a person or a program: the status and the transaction trace as
// text and JSON, and the device answers by the names people type. Shared by the vd-standin
// command and anything else that serves a view of a running StandinService.
//
// Every function is pure over what it is given, and the service's accessors are
// thread-safe, so any thread may call these while the service serves.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "standin/standin_service.h"

namespace vdstandin {

// The commands the daemon takes from waitForResponse.
inline constexpr const char* kDaemonCommands[] = {
    "start:",        "stop:",          "config_get:",  "config_set:",   "fresh_connect",
    "recovery_copy", "refresh_config", "refresh_time", "refresh_state", "reset_to_default",
    "delete_logs"};

// "stopped", "running", "transition", or "unknown" for any other value.
const char* stateName(int state);
// A state name or a decimal number.
bool parseState(const std::string& text, int* out);

// A device answer a person can change, by the name the command line uses.
struct DeviceSetting {
    const char* name;  // "sdcard-present", "serial", ...
    const char* help;
    bool numeric;  // shown as a JSON number (or null for "state" when not overridden)
    std::function<bool(DeviceAnswers&, const std::string&)> set;  // false: bad value
    std::function<std::string(const DeviceAnswers&)> get;
};
const std::vector<DeviceSetting>& deviceSettings();
const DeviceSetting* findDeviceSetting(const std::string& name);

// The daemon counts as connected while a caller is blocked in waitForResponse (the idle
// daemon always is) or when a request arrived within this window (a command in progress).
constexpr int64_t kConnectedWindowMillis = 5000;

// One JSON object on one line, keys always present and in this order:
//   "state"        name of the last run state the daemon reported with sendState
//                  ("stopped", "running", "transition"), "unknown" before any report or for
//                  a value outside 0..2
//   "stateCode"    that number, null before any report
//   "storageRoot"  the daemon's storage root from "persist.sys.vd.storage_path" ("/sdcard/",
//                  "/storage/1A2B-3C4D/"), null while unset or "UNKNOWN"
//   "layout"       "secure" when "persist.sys.vd.secure_mode" is "true", else "normal"
//   "connected"    see kConnectedWindowMillis
//   "waiting"      callers blocked in waitForResponse now
//   "lastCallUnixMillis"  arrival of the last request, null before any
//   "lastSeq"      seq of the last trace event, 0 before any
//   "daemonVersion"  the version reported under the name "vigild", null before any
//   "modules"      one object per module of the last document the daemon sent, in its
//                  order: "name"; "version" (its last sendVersion, null when none); "enabled"
//                  (its "Enable Module" setting is "true"; null when it has none); "running"
//                  (enabled and the state is running; null with "enabled"). Before any document:
//                  the modules that reported a version, with "enabled" and "running" null.
//   "lastError"    the text of the last sendConfigErrorMessage (module objections), null
//                  before any
//   "reports"      the arguments of the last call of each other reporting method, by
//                  method name: {"enableNotification": [1], "setQcMetaIdVersion": ["QC-7"]}
//   "device"       the device answers by DeviceSetting name: numbers for numeric settings
//                  ("state" is null when the service echoes the last state), strings else
// `nowUnixMillis` 0 means the current time.
std::string statusJson(const StandinService& service, int64_t nowUnixMillis = 0);
// The same for a person, one fact per line; `colour` adds ANSI colour to the state.
std::string statusText(const StandinService& service, bool colour = false,
                       int64_t nowUnixMillis = 0);

// One JSON object on one line: "seq", "unixMillis", "time" (UTC, ISO 8601 with
// milliseconds), "code", "name", "direction" ("report": the daemon tells the service and
// the reply carries nothing; "query": the service answers with a value or command;
// "unknown" for a code outside the interface), "args" (the request's arguments, strings
// then numbers), "reply" (replySummary), "status"; with `withBytes` also "requestHex" and
// "replyHex" (the parcel bytes, empty when the trace ring dropped them).
std::string traceEventJson(const TraceEvent& event, bool withBytes);
// One line for a person, local time:
//   "08:15:02.123 #12 -> sendState[4](1)"
//   "08:15:02.140 #13 <- waitForResponse[1]() = \"config_set:\""
// Long strings are cut to a readable length; the JSON form has them whole.
std::string traceEventText(const TraceEvent& event, bool colour = false);

// A value of a document handed to the daemon that the daemon's answer holds differently: what
// a reset, a corrected path or a refused document left in place of what was asked. Settings
// the answer lacks are not listed.
struct NotKept {
    std::string module, setting, sent, now;
};
std::vector<NotKept> valuesNotKept(const std::string& sent, const std::string& answer);

}  // namespace vdstandin
