// A stand-in for the companion service on a host device root: it listens on
// "<root>/dev/binder/com.tandril.vd.Ivd_service", serves every transaction the daemon makes,
// answers device questions from settings a test or a person can change, hands out queued
// commands and configuration documents, and records everything the daemon sent.
//
// Thread-safe: tests queue and read from their own thread while the service serves many
// connections at once (one thread per connection).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace vdstandin {

// What the service answers to the daemon's questions.
struct DeviceAnswers {
    int bluetoothEnabled = 1;
    int bluetoothDiscoverable = 0;
    int bluetoothConnected = 0;
    int ambientLight = 100;
    int wanSignalStrength = -85;
    std::string foregroundApplication[2] = {"com.example.app", "com.example.app.MainActivity"};
    std::string serialNumber = "HOST0001";
    std::string modelNumber = "HOSTDEVICE";
    std::string bspNumber = "14.0.0";
    int wifiSignalStrength = -60;
    std::string dhcp = "192.0.2.10";
    std::string gateway = "192.0.2.1";
    std::string defaultDirPath = "/sdcard/";
    int sdcardPresent = 0;
    std::string sdcardPath = "/sdcard/";
    std::string tellwickVersion = "14.0.0.1";
    int userValidToDeploy = 1;
    int deleteLogsParam = 0;
    std::string qcMetaIdVersion = "QC-META-0";
    // When set, getState answers this; otherwise the last state the daemon sent (0 at first).
    std::optional<int> stateOverride;
};

// One transaction as received, decoded.
struct Record {
    uint32_t code = 0;
    std::string method;                // "sendState", "sendConfig", ...
    std::vector<std::string> strings;  // string arguments, in order
    std::vector<int32_t> ints;         // int and boolean arguments, in order
};

// One transaction the daemon made, as the service saw it.
struct TraceEvent {
    uint64_t seq = 0;        // 1, 2, 3 ... in the order the service answered; a waitForResponse
                             // is answered when it hands out a command, so it can come after
                             // calls that arrived while it was blocked
    int64_t unixMillis = 0;  // wall-clock time the request arrived
    uint32_t code = 0;
    std::string name;  // "sendState", "waitForResponse", ...; "unknown" for a code not
                       // in the interface
    Record decoded;    // the request's arguments (a taken command is in replySummary)
    // The decoded reply, unquoted: the command for waitForResponse ("config_set:"), the
    // document for receiveConfig, the value for an int query ("1"), the strings of a
    // string-out query joined by ", "; "" when the reply carries only the exception header;
    // "exception: <message>" when the request was refused; "unknown transaction" with
    // status -74.
    std::string replySummary;
    int32_t status = 0;                   // the reply frame's status
    std::vector<uint8_t> request, reply;  // parcel bytes, without the frame headers
};

// What the daemon last reported, kept as transactions arrive (so it is cheap whatever the
// length of the session).
struct Summary {
    std::optional<int> state;                                   // last sendState
    std::vector<std::pair<std::string, std::string>> versions;  // latest per name, first-seen order
    std::optional<std::string> document;                        // last sendConfig
    std::optional<std::string> lastError;                       // last sendConfigErrorMessage
    int waiting = 0;             // callers blocked in waitForResponse now
    int64_t lastCallMillis = 0;  // wall-clock arrival of the last request, 0 before any
    uint64_t lastSeq = 0;        // seq of the last trace event
    // The last call of each other reporting method (enableNotification, setTraceLevel, ...).
    std::map<std::string, Record> lastReports;
    DeviceAnswers answers;
};

class StandinService {
  public:
    // `deviceRoot` is the host path of the device root.
    explicit StandinService(std::string deviceRoot);
    ~StandinService();  // stops

    // Creates "/dev/binder/" and listens. False (with errno) when it cannot.
    bool start();
    // Closes the socket and every connection (blocked waitForResponse calls get a dead
    // peer), and removes the socket file.
    void stop();
    bool running() const;

    // waitForResponse blocks until a command is queued; receiveConfig takes the oldest queued
    // document ("" when none).
    void queueCommand(const std::string& command);
    void queueConfig(const std::string& document);
    // Takes back the newest queued command or document equal to the text, if still queued
    // (a client that gave up waiting); true when one was.
    bool withdrawCommand(const std::string& command);
    bool withdrawConfig(const std::string& document);
    // Number of callers blocked in waitForResponse right now.
    int waitingForCommand() const;

    DeviceAnswers answers() const;
    void setAnswers(const DeviceAnswers& answers);
    void updateAnswers(const std::function<void(DeviceAnswers&)>& change);

    // Everything received, in order.
    std::vector<Record> records() const;
    void clearRecords();
    // What the daemon reported, newest last.
    std::vector<int> states() const;
    std::vector<std::pair<std::string, std::string>> versions() const;
    std::vector<std::string> configs() const;
    std::vector<std::string> errorMessages() const;
    std::vector<int> notificationFlags() const;
    std::vector<int> btSnoopFlags() const;
    std::vector<int> validUserFlags() const;
    std::vector<int> bugreportStatuses() const;
    std::vector<int> traceLevels() const;
    std::vector<std::string> qcMetaIds() const;

    // Waits (real time, bounded) until `predicate` holds over the records; true when it did.
    bool waitUntil(const std::function<bool(const std::vector<Record>&)>& predicate,
                   std::chrono::milliseconds timeout);
    // A long-running service stops keeping records (which grow with every call); the summary
    // and the trace ring stay bounded either way.
    void keepRecords(bool keep);

    Summary summary() const;
    // A property of the device root's store ("" when unset), read as the daemon reads it.
    std::string property(const std::string& name) const;

    // Listeners get every transaction once, in seq order, after its reply is built and
    // before it is sent, on the thread serving that connection and outside the service's
    // lock: they may call the service, but must not block (queue the event and return).
    // After removeTraceListener returns, that listener is not running and is not called
    // again, unless it was called from within a listener.
    uint64_t addTraceListener(std::function<void(const TraceEvent&)> listener);
    void removeTraceListener(uint64_t id);
    // The newest `max` events, oldest first. The ring keeps the last kTraceRing events and
    // drops the bytes of older ones when they pass kTraceBytes in all.
    std::vector<TraceEvent> recentTrace(size_t max) const;
    static constexpr size_t kTraceRing = 1000;
    static constexpr size_t kTraceBytes = 16 << 20;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace vdstandin
