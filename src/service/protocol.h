// The companion service's transactions, in one table: the proxy takes its codes from here,
// the parcel test pins the bytes of every row, and docs/protocol.md is printed from it
// (tools/protocol_doc), so the three cannot drift apart.
#pragma once

#include <cstddef>
#include <cstdint>

// The most parcel data one transaction carries: the host transport's frame limit, and within
// the 1 MiB binder buffer a device process has. A larger request would be lost on the way
// while its empty reply read as success.
constexpr size_t kMaxTransactionData = 1048576;

// Transaction codes. 9 to 17 are not used and must not be reused.
enum Ivd_serviceCode : uint32_t {
    WAIT_FOR_RESPONSE = 1,
    SEND_CONFIG = 2,
    RECEIVE_CONFIG = 3,
    SEND_STATE = 4,
    SEND_VERSION = 5,
    SEND_CONFIG_ERROR_MESSAGE = 6,
    ENABLE_NOTIFICATION = 7,
    GET_STATE = 8,
    START_BT_SNOOP = 18,
    STOP_BT_SNOOP = 19,
    SET_TRACE_LEVEL = 20,
    IS_BT_SNOOPLOG_CONFIG_CHANGED = 21,
    BLUETOOTH_IS_ENABLED = 22,
    BLUETOOTH_IS_DISCOVERABLE = 23,
    BLUETOOTH_IS_CONNECTED = 24,
    AMBIENT_LIGHT = 25,
    STOP_AMBIENT_LIGHT = 26,
    WAN_SIGNAL_STRENGTH = 27,
    FOREGROUND_APPLICATION = 28,
    SERIAL_NUMBER = 29,
    MODEL_NUMBER = 30,
    BSP_NUMBER = 31,
    WIFI_SIGNAL_STRENGTH = 32,
    DHCP = 33,
    GATEWAY = 34,
    GET_DEFAULT_DIR_PATH = 35,
    IS_SDCARD_PRESENT = 36,
    GET_SDCARD_PATH = 37,
    GET_TELLWICK_VERSION = 38,
    IS_USER_VALID_TO_DEPLOY = 39,
    UPDATE_VALID_USER_STATUS = 40,
    GET_QC_META_ID_VERSION = 41,
    SET_QC_META_ID_VERSION = 42,
    RESET_TO_DEFAULT = 43,
    DELETE_TW_LOGS = 44,
    GET_DELETE_LOGS_PARAM = 45,
    UPDATE_TW_BUGREPORT_STATUS = 46,
};

namespace vigild::protocol {

// What a reply holds after its exception header.
enum class Reply {
    None,           // nothing
    Int,            // int32 value
    String,         // one string
    StatusString,   // int32 status, int32 count (ignored), one string
    StatusInt,      // int32 status, int32 count (ignored), int32 value
    StatusStrings,  // int32 status, int32 count N, N strings
};

struct Transaction {
    Ivd_serviceCode code;
    const char* method;   // the proxy's method
    const char* request;  // what follows the interface token
    Reply reply;
    const char* result;  // what the method gives the daemon
    const char* caller;  // who calls it, and when
};

inline constexpr const char* kNoCaller = "no caller in this daemon";

inline constexpr Transaction kTransactions[] = {
    {WAIT_FOR_RESPONSE, "waitForResponse", "nothing", Reply::String,
     "the command text, \"Error\" on an exception",
     "the command loop; blocks until the service has the next command"},
    {SEND_CONFIG, "sendConfig", "string: the configuration document", Reply::None, "status",
     "configuration apply, the device report (\"fresh_connect\") and the deployed file watch"},
    {RECEIVE_CONFIG, "receiveConfig", "nothing", Reply::String,
     "the document text, \"Error\" on an exception",
     "the command loop, right after \"config_set:\""},
    {SEND_STATE, "sendState", "int32 run state (0 stopped, 1 running, 2 transition)", Reply::None,
     "status", "run state control, on every change of the run state"},
    {SEND_VERSION, "sendVersion", "string name, string version", Reply::None, "status",
     "the device report: the daemon's own version, then each module's"},
    {SEND_CONFIG_ERROR_MESSAGE, "sendConfigErrorMessage", "string: the error document", Reply::None,
     "status", "configuration apply, when modules object to their values"},
    {ENABLE_NOTIFICATION, "enableNotification", "int32 0/1", Reply::None, "status",
     "the daemon's settings module, when \"Enable notifications\" is applied"},
    {GET_STATE, "getState", "nothing", Reply::Int, "the value, -1 on an exception",
     "run state control, once at start-up, to agree with the service on the run state"},
    {START_BT_SNOOP, "startBTSnoop", "nothing", Reply::None, "status", kNoCaller},
    {STOP_BT_SNOOP, "stopBTSnoop", "nothing", Reply::None, "status", kNoCaller},
    {SET_TRACE_LEVEL, "setTraceLevel", "int32 level", Reply::None, "status", kNoCaller},
    {IS_BT_SNOOPLOG_CONFIG_CHANGED, "isBTSnooplogConfigChanged", "int32 0/1", Reply::None, "status",
     "configuration apply, when a module named BTSnoopLogModule is switched on"},
    {BLUETOOTH_IS_ENABLED, "bluetoothIsEnabled", "nothing", Reply::Int,
     "the value, -1 on an exception", kNoCaller},
    {BLUETOOTH_IS_DISCOVERABLE, "bluetoothIsDiscoverable", "nothing", Reply::Int,
     "the value, -1 on an exception", kNoCaller},
    {BLUETOOTH_IS_CONNECTED, "bluetoothIsConnected", "nothing", Reply::Int,
     "the value, -1 on an exception", kNoCaller},
    {AMBIENT_LIGHT, "ambientLight", "nothing", Reply::Int, "the value, -2147483648 on an exception",
     kNoCaller},
    {STOP_AMBIENT_LIGHT, "stopAmbientLight", "nothing", Reply::None, "nothing", kNoCaller},
    {WAN_SIGNAL_STRENGTH, "wanSignalStrength", "int32 1", Reply::Int,
     "0 and the value; -1 on an exception or when the value is -1", kNoCaller},
    {FOREGROUND_APPLICATION, "foregroundApplication", "int32 2", Reply::StatusStrings,
     "status; at most two strings are kept", kNoCaller},
    {SERIAL_NUMBER, "serialNumber", "int32 1", Reply::StatusString, "status and the text",
     kNoCaller},
    {MODEL_NUMBER, "modelNumber", "int32 1", Reply::StatusString, "status and the text", kNoCaller},
    {BSP_NUMBER, "bspNumber", "int32 1", Reply::StatusString, "status and the text", kNoCaller},
    {WIFI_SIGNAL_STRENGTH, "wifiSignalStrength", "int32 1", Reply::StatusInt,
     "status and the value", kNoCaller},
    {DHCP, "dhcp", "int32 1", Reply::StatusString, "status and the text", kNoCaller},
    {GATEWAY, "gateway", "int32 1", Reply::StatusString, "status and the text", kNoCaller},
    {GET_DEFAULT_DIR_PATH, "getDefaultDirPath", "int32 1", Reply::StatusString,
     "status and the text", kNoCaller},
    {IS_SDCARD_PRESENT, "isSDcardPresent", "nothing", Reply::Int, "the value, -1 on an exception",
     "storage resolution, whenever the storage root is chosen"},
    {GET_SDCARD_PATH, "getSDcardPath", "int32 1", Reply::StatusString, "status and the path",
     "storage resolution, when a removable card is present"},
    {GET_TELLWICK_VERSION, "getTellwickVersion", "int32 1", Reply::StatusString,
     "status and the text", kNoCaller},
    {IS_USER_VALID_TO_DEPLOY, "isUserValidToDeploy", "nothing", Reply::Int,
     "the value, -1 on an exception", "the deployed file watch, before applying a dropped file"},
    {UPDATE_VALID_USER_STATUS, "updateValidUserStatus", "int32 0/1", Reply::None, "status",
     "the deployed file watch, after the right to deploy was decided"},
    {GET_QC_META_ID_VERSION, "getQcMetaIdVersion", "int32 1", Reply::StatusString,
     "status and the text", kNoCaller},
    {SET_QC_META_ID_VERSION, "setQcMetaIdVersion", "string: the version", Reply::None, "status",
     kNoCaller},
    {RESET_TO_DEFAULT, "resetToDefault", "nothing", Reply::None, "status", kNoCaller},
    {DELETE_TW_LOGS, "deleteTwLogs", "int32 1", Reply::StatusInt, "status and the value",
     kNoCaller},
    {GET_DELETE_LOGS_PARAM, "getDeleteLogsParam", "nothing", Reply::Int,
     "the value, -1 on an exception", "log deletion (\"delete_logs\"), to learn what to delete"},
    {UPDATE_TW_BUGREPORT_STATUS, "updateTwBugreportStatus", "int32 0/1", Reply::None, "status",
     "the bug report worker, when a report has finished or failed"},
};

}  // namespace vigild::protocol
