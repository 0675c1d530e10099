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
    std::string method;               // "sendState", "sendConfig", ...
    std::vector<std::string> strings; // string arguments, in order
    std::vector<int32_t> ints;        // int and boolean arguments, in order
};

class StandinService {
public:
    // `deviceRoot` is the host path of the device root.
    explicit StandinService(std::string deviceRoot);
    ~StandinService(); // stops

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

    // Called with a decoded line per transaction (the CLI's --verbose), in order, under the
    // service's lock: the callback must not call back into the service.
    void setTrace(std::function<void(const std::string&)> trace);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace vdstandin
