// The browser console of a serving stand-in: one page and a small JSON API over HTTP, in the
// stand-in's own process. It shows the daemon's state, its configuration as a form, the live
// transaction trace, and hands commands and documents to the daemon through the service.
//
//   GET  /                       the page (and /app.js, /style.css), compiled into the binary
//   GET  /api/status             state, storage, connection, device report, device answers
//   GET  /api/config             the daemon's last document and the outcome of the last apply
//   GET  /api/trace?max=N        the newest transactions, without their bytes
//   GET  /api/trace/<seq>        one transaction with its parcel bytes
//   GET  /api/events             server-sent events: trace, status, config
//   POST /api/config             a document to hand over with "config_set:"
//   POST /api/command            {"command": "start:" | ..., "deleteType": n}
//   POST /api/bugreport          asks the daemon for a bug report through its property
//
// Requests from another origin are refused (403): a page on another site must not steer a
// developer's daemon.
#pragma once

#include <memory>
#include <string>

namespace vdstandin {

class StandinService;

// Splits "HOST:PORT" or "[V6]:PORT"; "" means 127.0.0.1:8080. False with *error when the
// text is not an address.
bool parseConsoleAddress(const std::string& text, std::string* host, int* port, std::string* error);
// True for 127.0.0.0/8, ::1 and "localhost".
bool isLoopbackHost(const std::string& host);

class Console {
  public:
    // `deviceRoot` is the host path of the device root, for the property store.
    Console(StandinService& service, std::string deviceRoot);
    ~Console();  // stops
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    // Binds `address` (parseConsoleAddress; port 0 picks a free port) and serves on threads
    // of its own. False with *error when it cannot.
    bool start(const std::string& address, std::string* error);
    // "http://127.0.0.1:8080/" once started.
    std::string url() const;
    // False when other machines may reach the console (any address but loopback).
    bool loopbackOnly() const;
    // Ends every event stream and the server.
    void stop();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace vdstandin
