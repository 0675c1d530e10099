#include "standin/console/console.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <jansson.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "console_assets.h"
#include "standin/standin_service.h"
#include "standin/standin_view.h"

namespace vdstandin {

namespace {

// The same bound as a document handed over with "vd-standin config-set".
constexpr size_t kMaxDocument = 1048576;
constexpr size_t kMaxRequestBody = kMaxDocument + 4096;
// Events a fresh stream (or a trace request) gets from the past.
constexpr size_t kBacklog = 300;
// A stream with nothing to say sends a comment this often, which is also how a closed
// browser tab is noticed and its thread freed.
constexpr std::chrono::seconds kStreamPing{5};
constexpr int kMaxStreams = 16;
constexpr int kWorkerThreads = kMaxStreams + 8;

constexpr const char* kBugreportProperty = "persist.sys.vd.tw_bugreport";
constexpr const char* kNormalFolder = "Tellwick/";
constexpr const char* kSecureFolder = "Android/data/com.tandril.tellwick/Tellwick/secure/log_data/";

struct JsonRef {
    json_t* value = nullptr;
    explicit JsonRef(json_t* v = nullptr) : value(v) {}
    ~JsonRef() { json_decref(value); }
    JsonRef(const JsonRef&) = delete;
    JsonRef& operator=(const JsonRef&) = delete;
    JsonRef(JsonRef&& other) noexcept : value(std::exchange(other.value, nullptr)) {}
    JsonRef& operator=(JsonRef&& other) noexcept {
        std::swap(value, other.value);
        return *this;
    }
    json_t* get() const { return value; }
    json_t* release() { return std::exchange(value, nullptr); }
};

std::string dump(json_t* value) {
    char* text = json_dumps(value, JSON_COMPACT | JSON_ENCODE_ANY);
    std::string out = text != nullptr ? text : "null";
    free(text);
    return out;
}

// Parses text the service or the daemon produced; null when it is not JSON.
json_t* parse(const std::string& text) {
    return json_loadb(text.data(), text.size(), JSON_DECODE_ANY, nullptr);
}

void reply(httplib::Response& res, int status, json_t* body) {
    res.status = status;
    res.set_content(dump(body), "application/json");
    json_decref(body);
}

void refuse(httplib::Response& res, int status, const std::string& why) {
    reply(res, status, json_pack("{ss}", "error", why.c_str()));
}

bool isIpv4(const std::string& text) {
    in_addr a;
    return inet_pton(AF_INET, text.c_str(), &a) == 1;
}

bool isIpv6(const std::string& text) {
    in6_addr a;
    return inet_pton(AF_INET6, text.c_str(), &a) == 1;
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// The values of `sent` that the daemon's answer holds differently.
json_t* notKept(json_t* sent, json_t* answer) {
    json_t* out = json_array();
    auto text = [](json_t* document) {
        char* dumped = json_dumps(document, 0);
        std::string result = dumped != nullptr ? dumped : "";
        free(dumped);
        return result;
    };
    for (const NotKept& v : valuesNotKept(text(sent), text(answer))) {
        json_array_append_new(
            out, json_pack("{ssssssss}", "module", v.module.c_str(), "setting", v.setting.c_str(),
                           "sent", v.sent.c_str(), "now", v.now.c_str()));
    }
    return out;
}

}  // namespace

bool isLoopbackHost(const std::string& host) {
    if (lower(host) == "localhost") return true;
    if (isIpv4(host)) return host.rfind("127.", 0) == 0;
    in6_addr a;
    return inet_pton(AF_INET6, host.c_str(), &a) == 1 && IN6_IS_ADDR_LOOPBACK(&a);
}

bool parseConsoleAddress(const std::string& text, std::string* host, int* port,
                         std::string* error) {
    std::string h = "127.0.0.1";
    std::string p = "8080";
    if (!text.empty()) {
        size_t colon = text.rfind(':');
        if (colon == std::string::npos) {
            *error = "expected HOST:PORT, e.g. 127.0.0.1:8080: " + text;
            return false;
        }
        h = text.substr(0, colon);
        p = text.substr(colon + 1);
        if (h.size() >= 2 && h.front() == '[' && h.back() == ']') {
            h = h.substr(1, h.size() - 2);
            if (!isIpv6(h)) {
                *error = "not an IPv6 address: " + h;
                return false;
            }
        } else if (h.find(':') != std::string::npos) {
            *error = "write an IPv6 address in brackets, e.g. [::1]:8080: " + text;
            return false;
        } else if (h.empty()) {
            *error = "no host in " + text;
            return false;
        }
    }
    if (p.empty() || p.size() > 5 || p.find_first_not_of("0123456789") != std::string::npos ||
        std::stoi(p) > 65535) {
        *error = "not a port number: " + p;
        return false;
    }
    *host = h;
    *port = std::stoi(p);
    return true;
}

struct Console::Impl {
    // Where the last document the console handed over has got to.
    struct Apply {
        uint64_t id = 0;
        std::string phase;  // queued, taken, received, answered, unanswered
        JsonRef sent;
        JsonRef objections;
        JsonRef answer;
        uint64_t queuedAfter = 0;
        int64_t queuedMillis = 0;
    };

    StandinService& service;
    std::string deviceRoot;
    httplib::Server server;
    std::thread thread;
    std::string host;
    int port = 0;
    uint64_t listener = 0;
    std::atomic<int> streams{0};

    std::mutex mutex;
    std::condition_variable changed;
    bool stopping = false;
    uint64_t lastSeq = 0;
    uint64_t configVersion = 1;
    Apply apply;

    Impl(StandinService& s, std::string root) : service(s), deviceRoot(std::move(root)) {}

    void onTrace(const TraceEvent& event);
    // Moves the last apply along the exchange; under `mutex`.
    void followApply(const TraceEvent& event);
    bool sameOrigin(const httplib::Request& req, std::string* why) const;
    json_t* statusDocument() const;
    json_t* configDocument();
    void routes();
    void events(const httplib::Request& req, httplib::Response& res);
    bool setProperty(const std::string& name, const std::string& value, std::string* error);
};

void Console::Impl::onTrace(const TraceEvent& event) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        lastSeq = std::max(lastSeq, event.seq);
        // A refused request is not part of an exchange: the daemon got an exception.
        const bool refused = event.status != 0 || event.replySummary.rfind("exception: ", 0) == 0;
        if (!refused) followApply(event);
        if (event.name == "sendConfig") configVersion++;
    }
    changed.notify_all();
}

void Console::Impl::followApply(const TraceEvent& event) {
    const std::string phase = apply.phase;
    const bool inFlight = phase == "taken" || phase == "received";
    const std::string argument = event.decoded.strings.empty() ? "" : event.decoded.strings[0];
    if (event.name == "waitForResponse") {
        if (phase == "queued" && event.replySummary == "config_set:") {
            apply.phase = "taken";
        } else if (inFlight) {
            // The daemon went on to its next command without sending a document back: it
            // refused the text and its defaults alike.
            apply.phase = "unanswered";
        } else {
            return;
        }
    } else if (event.name == "receiveConfig" && phase == "taken") {
        apply.phase = "received";
    } else if (event.name == "sendConfigErrorMessage" && inFlight) {
        JsonRef parsed(parse(argument));
        if (!json_is_object(parsed.get()))
            parsed = JsonRef(json_pack("{ss}", "", argument.c_str()));
        apply.objections = std::move(parsed);
    } else if (event.name == "sendConfig" && inFlight) {
        apply.answer = JsonRef(parse(argument));
        apply.phase = "answered";
    } else {
        return;
    }
    configVersion++;
}

// A page from another site must not read or steer the daemon. The Host must name this
// server by an address or "localhost" (a made-up name that resolves here is a rebinding
// attack); an Origin must be this server's own; a state-changing request without one must
// at least not come from another site by Sec-Fetch-Site or Referer.
bool Console::Impl::sameOrigin(const httplib::Request& req, std::string* why) const {
    const std::string hostHeader = lower(req.get_header_value("Host"));
    size_t colon = hostHeader.rfind(':');
    std::string name = colon == std::string::npos ? hostHeader : hostHeader.substr(0, colon);
    std::string portText = colon == std::string::npos ? "80" : hostHeader.substr(colon + 1);
    if (name.size() >= 2 && name.front() == '[' && name.back() == ']') {
        name = name.substr(1, name.size() - 2);
        if (!isIpv6(name)) name.clear();
    } else if (!isIpv4(name) && name != "localhost") {
        name.clear();
    }
    if (name.empty() || portText != std::to_string(port)) {
        *why = "unknown Host " + hostHeader;
        return false;
    }
    const std::string own = "http://" + hostHeader;
    if (req.has_header("Origin")) {
        if (lower(req.get_header_value("Origin")) != own) {
            *why = "cross-origin request refused";
            return false;
        }
        return true;
    }
    if (req.method == "GET" || req.method == "HEAD") return true;
    if (req.has_header("Sec-Fetch-Site")) {
        std::string site = req.get_header_value("Sec-Fetch-Site");
        if (site != "same-origin" && site != "none") {
            *why = "cross-site request refused";
            return false;
        }
    }
    if (req.has_header("Referer")) {
        if (lower(req.get_header_value("Referer")).rfind(own + "/", 0) != 0) {
            *why = "cross-site request refused";
            return false;
        }
    }
    return true;
}

// The shared status, plus what only the console acts on.
json_t* Console::Impl::statusDocument() const {
    json_t* status = parse(statusJson(service));
    if (!json_is_object(status)) {
        json_decref(status);
        status = json_object();
    }
    const bool secure = service.property("persist.sys.vd.secure_mode") == "true";
    json_object_set_new(status, "layoutFolder",
                        json_string(secure ? kSecureFolder : kNormalFolder));
    json_object_set_new(status, "bugreportProperty",
                        json_string(service.property(kBugreportProperty).c_str()));
    json_object_set_new(status, "deviceRoot", json_string(deviceRoot.c_str()));
    return status;
}

json_t* Console::Impl::configDocument() {
    std::optional<std::string> document = service.summary().document;
    json_t* out = json_object();
    json_t* parsed = document ? parse(*document) : nullptr;
    json_object_set_new(out, "document", parsed != nullptr ? parsed : json_null());
    std::lock_guard<std::mutex> lock(mutex);
    json_object_set_new(out, "version", json_integer(static_cast<json_int_t>(configVersion)));
    if (apply.id == 0) {
        json_object_set_new(out, "apply", json_null());
        return out;
    }
    json_t* a =
        json_pack("{s:I,s:s,s:I,s:I}", "id", static_cast<json_int_t>(apply.id), "phase",
                  apply.phase.c_str(), "queuedAfter", static_cast<json_int_t>(apply.queuedAfter),
                  "queuedMillis", static_cast<json_int_t>(apply.queuedMillis));
    json_object_set(a, "sent", apply.sent.get());
    json_object_set(a, "objections", apply.objections.get() ? apply.objections.get() : json_null());
    if (apply.answer.get() != nullptr) {
        json_object_set_new(a, "notKept", notKept(apply.sent.get(), apply.answer.get()));
    } else {
        json_object_set_new(a, "notKept", json_null());
    }
    json_object_set_new(out, "apply", a);
    return out;
}

bool Console::Impl::setProperty(const std::string& name, const std::string& value,
                                std::string* error) {
    // As the store is written: a hidden temporary file renamed over the property's file, so
    // the daemon never reads half a value.
    namespace fs = std::filesystem;
    fs::path folder = fs::path(deviceRoot + "/dev/__properties__");
    std::error_code ec;
    fs::create_directories(folder, ec);
    fs::path temp = folder / (".console-" + name);
    {
        std::ofstream out(temp, std::ios::binary | std::ios::trunc);
        out << value;
        if (!out.flush()) {
            *error = "cannot write " + temp.string() + ": " + strerror(errno);
            return false;
        }
    }
    fs::rename(temp, folder / name, ec);
    if (ec) {
        *error = "cannot write " + (folder / name).string() + ": " + ec.message();
        fs::remove(temp, ec);
        return false;
    }
    return true;
}

void Console::Impl::events(const httplib::Request& req, httplib::Response& res) {
    if (streams.fetch_add(1) >= kMaxStreams) {
        streams--;
        refuse(res, 503, "too many event streams open");
        return;
    }
    struct Stream {
        bool started = false;
        bool backlog = true;
        uint64_t sentSeq = 0;
        uint64_t configVersion = 0;
        std::string status;
    };
    auto stream = std::make_shared<Stream>();
    // A reconnecting EventSource says what it saw last; the rest comes again.
    std::string last = req.get_header_value("Last-Event-ID");
    if (last.empty() && req.has_param("after")) last = req.get_param_value("after");
    if (!last.empty() && last.size() < 20 &&
        last.find_first_not_of("0123456789") == std::string::npos) {
        stream->sentSeq = std::stoull(last);
    } else {
        stream->backlog = false;
    }
    res.set_header("Cache-Control", "no-store");
    res.set_chunked_content_provider(
        "text/event-stream",
        [this, stream](size_t, httplib::DataSink& sink) {
            std::string out;
            uint64_t version = 0;
            if (!stream->started) {
                stream->started = true;
                out += "retry: 2000\n\n";
                if (!stream->backlog) {
                    // A fresh page gets the recent past, then everything new.
                    auto recent = service.recentTrace(kBacklog);
                    stream->sentSeq = recent.empty() ? 0 : recent.front().seq - 1;
                }
            } else {
                std::unique_lock<std::mutex> lock(mutex);
                changed.wait_for(lock, kStreamPing, [&] {
                    return stopping || lastSeq > stream->sentSeq ||
                           configVersion != stream->configVersion;
                });
                if (stopping) return false;
            }
            {
                std::lock_guard<std::mutex> lock(mutex);
                version = configVersion;
            }
            for (const TraceEvent& event : service.recentTrace(kBacklog)) {
                if (event.seq <= stream->sentSeq) continue;
                out += "id: " + std::to_string(event.seq) +
                       "\nevent: trace\ndata: " + traceEventJson(event, false) + "\n\n";
                stream->sentSeq = event.seq;
            }
            std::string status = dump(JsonRef(statusDocument()).get());
            if (status != stream->status) {
                out += "event: status\ndata: " + status + "\n\n";
                stream->status = std::move(status);
            }
            if (version != stream->configVersion) {
                out += "event: config\ndata: " + dump(JsonRef(configDocument()).get()) + "\n\n";
                stream->configVersion = version;
            }
            if (out.empty()) out = ": ping\n\n";
            return sink.write(out.data(), out.size());
        },
        [this](bool) { streams--; });
}

void Console::Impl::routes() {
    for (const auto& asset : console_assets::kConsoleAssets) {
        std::string path = asset.path;
        auto serve = [&asset](const httplib::Request&, httplib::Response& res) {
            res.set_header("Cache-Control", "no-cache");
            res.set_content(reinterpret_cast<const char*>(asset.data), asset.size,
                            asset.contentType);
        };
        server.Get(path, serve);
        if (path == "/index.html") server.Get("/", serve);
    }

    server.Get("/api/status", [this](const httplib::Request&, httplib::Response& res) {
        reply(res, 200, statusDocument());
    });
    server.Get("/api/config", [this](const httplib::Request&, httplib::Response& res) {
        reply(res, 200, configDocument());
    });
    server.Get("/api/trace", [this](const httplib::Request& req, httplib::Response& res) {
        size_t max = kBacklog;
        std::string text = req.get_param_value("max");
        if (!text.empty() && text.size() < 6 &&
            text.find_first_not_of("0123456789") == std::string::npos) {
            max = std::min<size_t>(std::stoul(text), StandinService::kTraceRing);
        }
        std::string body = "[";
        for (const TraceEvent& event : service.recentTrace(max)) {
            if (body.size() > 1) body += ",";
            body += traceEventJson(event, false);
        }
        res.set_content(body + "]", "application/json");
    });
    server.Get(R"(/api/trace/(\d{1,19}))",
               [this](const httplib::Request& req, httplib::Response& res) {
                   const uint64_t seq = std::stoull(req.matches[1]);
                   for (const TraceEvent& event : service.recentTrace(StandinService::kTraceRing)) {
                       if (event.seq == seq) {
                           res.set_content(traceEventJson(event, true), "application/json");
                           return;
                       }
                   }
                   refuse(res, 404, "transaction " + std::to_string(seq) + " is no longer kept");
               });
    server.Get("/api/events",
               [this](const httplib::Request& req, httplib::Response& res) { events(req, res); });

    server.Post("/api/config", [this](const httplib::Request& req, httplib::Response& res) {
        if (req.body.size() > kMaxDocument) {
            refuse(res, 413, "a document is at most " + std::to_string(kMaxDocument) + " bytes");
            return;
        }
        json_error_t error;
        JsonRef document(json_loadb(req.body.data(), req.body.size(), 0, &error));
        if (document.get() == nullptr) {
            refuse(res, 400, std::string("not JSON: ") + error.text);
            return;
        }
        if (!json_is_object(document.get())) {
            refuse(res, 400, "a configuration document is a JSON object");
            return;
        }
        // The daemon gets the text as it came; the console keeps it to show what was kept.
        uint64_t id = 0;
        {
            std::lock_guard<std::mutex> lock(mutex);
            id = ++apply.id;
            apply.phase = "queued";
            apply.sent = std::move(document);
            apply.objections = JsonRef();
            apply.answer = JsonRef();
            apply.queuedAfter = lastSeq;
            apply.queuedMillis = std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count();
            configVersion++;
        }
        changed.notify_all();
        service.queueConfig(req.body);
        service.queueCommand("config_set:");
        reply(res, 202,
              json_pack("{s:s,s:I,s:I}", "queued", "config_set:", "apply",
                        static_cast<json_int_t>(id), "bytes",
                        static_cast<json_int_t>(req.body.size())));
    });

    server.Post("/api/command", [this](const httplib::Request& req, httplib::Response& res) {
        JsonRef body(json_loadb(req.body.data(), req.body.size(), 0, nullptr));
        const char* command = json_string_value(json_object_get(body.get(), "command"));
        if (command == nullptr) {
            refuse(res, 400, "expected {\"command\": \"start:\"}");
            return;
        }
        // "config_set:" goes through POST /api/config only, with its document.
        auto known = std::find_if(std::begin(kDaemonCommands), std::end(kDaemonCommands),
                                  [command](const char* c) { return strcmp(c, command) == 0; });
        if (known == std::end(kDaemonCommands) || strcmp(command, "config_set:") == 0) {
            refuse(res, 400, std::string("not a console command: ") + command);
            return;
        }
        json_t* type = json_object_get(body.get(), "deleteType");
        if (type != nullptr) {
            if (strcmp(command, "delete_logs") != 0 || !json_is_integer(type) ||
                json_integer_value(type) < INT32_MIN || json_integer_value(type) > INT32_MAX) {
                refuse(res, 400, "deleteType is a 32-bit integer, for delete_logs only");
                return;
            }
            // The daemon asks for the type (getDeleteLogsParam) once it runs the command.
            int value = static_cast<int>(json_integer_value(type));
            service.updateAnswers([value](DeviceAnswers& a) { a.deleteLogsParam = value; });
        }
        uint64_t after = 0;
        {
            std::lock_guard<std::mutex> lock(mutex);
            after = lastSeq;
        }
        service.queueCommand(command);
        reply(res, 202,
              json_pack("{s:s,s:I}", "queued", command, "after", static_cast<json_int_t>(after)));
    });

    server.Post("/api/bugreport", [this](const httplib::Request&, httplib::Response& res) {
        std::string error;
        if (!setProperty(kBugreportProperty, "true", &error)) {
            refuse(res, 500, error);
            return;
        }
        uint64_t after = 0;
        {
            std::lock_guard<std::mutex> lock(mutex);
            after = lastSeq;
        }
        changed.notify_all();
        reply(res, 202,
              json_pack("{s:s,s:s,s:I}", "property", kBugreportProperty, "value", "true", "after",
                        static_cast<json_int_t>(after)));
    });

    // State changes are POST only; say so rather than "not found".
    for (const char* path : {"/api/command", "/api/bugreport"}) {
        server.Get(path, [](const httplib::Request&, httplib::Response& res) {
            res.set_header("Allow", "POST");
            refuse(res, 405, "use POST");
        });
    }

    server.set_pre_routing_handler([this](const httplib::Request& req, httplib::Response& res) {
        std::string why;
        if (!sameOrigin(req, &why)) {
            refuse(res, 403, why);
            return httplib::Server::HandlerResponse::Handled;
        }
        if (req.method == "POST" &&
            req.get_header_value("Content-Type").rfind("application/json", 0) != 0) {
            // Also keeps plain cross-site forms out: they cannot send this type.
            refuse(res, 415, "send application/json");
            return httplib::Server::HandlerResponse::Handled;
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });
    server.set_error_handler([](const httplib::Request&, httplib::Response& res) {
        if (res.body.empty()) {
            res.set_content("{\"error\":\"" + std::to_string(res.status) + "\"}",
                            "application/json");
        }
    });
}

Console::Console(StandinService& service, std::string deviceRoot)
    : impl_(std::make_unique<Impl>(service, std::move(deviceRoot))) {}

Console::~Console() { stop(); }

bool Console::start(const std::string& address, std::string* error) {
    Impl& s = *impl_;
    if (!parseConsoleAddress(address, &s.host, &s.port, error)) return false;
    s.server.new_task_queue = [] { return new httplib::ThreadPool(kWorkerThreads); };
    s.server.set_payload_max_length(kMaxRequestBody);
    s.server.set_keep_alive_max_count(100);
    s.server.set_default_headers({{"X-Content-Type-Options", "nosniff"},
                                  {"X-Frame-Options", "DENY"},
                                  {"Referrer-Policy", "same-origin"}});
    s.routes();
    if (s.port == 0) {
        s.port = s.server.bind_to_any_port(s.host);
        if (s.port <= 0) {
            *error = "cannot listen on " + s.host + ": " + strerror(errno);
            return false;
        }
    } else if (!s.server.bind_to_port(s.host, s.port)) {
        *error =
            "cannot listen on " + s.host + ":" + std::to_string(s.port) + ": " + strerror(errno);
        return false;
    }
    s.listener = s.service.addTraceListener([this](const TraceEvent& e) { impl_->onTrace(e); });
    {
        auto recent = s.service.recentTrace(1);
        std::lock_guard<std::mutex> lock(s.mutex);
        s.lastSeq = recent.empty() ? 0 : recent.back().seq;
    }
    s.thread = std::thread([this] { impl_->server.listen_after_bind(); });
    // stop() is a no-op on a server that is not yet running, so only return once it is.
    for (int i = 0; i < 5000 && !s.server.is_running(); i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

std::string Console::url() const {
    // A console on every address is opened here through loopback.
    std::string h = impl_->host == "0.0.0.0" ? "127.0.0.1"
                    : impl_->host == "::"    ? "::1"
                                             : impl_->host;
    return "http://" + (isIpv6(h) ? "[" + h + "]" : h) + ":" + std::to_string(impl_->port) + "/";
}

bool Console::loopbackOnly() const { return isLoopbackHost(impl_->host); }

void Console::stop() {
    Impl& s = *impl_;
    if (!s.thread.joinable()) return;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        s.stopping = true;
    }
    s.changed.notify_all();
    s.service.removeTraceListener(s.listener);
    s.server.stop();
    s.thread.join();
}

}  // namespace vdstandin
