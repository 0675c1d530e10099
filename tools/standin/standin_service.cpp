#include "standin/standin_service.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <list>

#include "platform/host/host_platform.h"
#include "service/ivd_service.h"
#include "service/parcel.h"
#include "service/protocol.h"

namespace vdstandin {

using vigild::Parcel;
using vigild::platform::host::kMaxFrameSize;

namespace {

// How often a caller parked in waitForResponse checks that its peer is still there.
constexpr std::chrono::milliseconds kPeerCheck{200};

const vigild::protocol::Transaction* transaction(uint32_t code) {
    for (const auto& t : vigild::protocol::kTransactions) {
        if (t.code == code) return &t;
    }
    return nullptr;
}

int64_t nowMillis() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// The daemon's strings: int32 n, then n words of one byte each. False when the words
// claim more than the request holds.
bool readWordString(Parcel& data, std::string* out) { return data.readByteWords(out); }

// The daemon keeps the low byte of each unit, so every byte travels as its own unit.
std::u16string byteUnits(const std::string& text) {
    std::u16string units(text.size(), u'\0');
    for (size_t i = 0; i < text.size(); i++) units[i] = static_cast<unsigned char>(text[i]);
    return units;
}

// The reply of waitForResponse and receiveConfig: one String16.
void writeByteString16(Parcel& reply, const std::string& text) {
    reply.writeString16(byteUnits(text));
}

// The strings of the counted reply forms: the length and the units, padded, with no NUL unit.
// The daemon consumes exactly the padded units, so a NUL unit after an even-length string
// would be read as the next string's length.
void writeCountedString(Parcel& reply, const std::string& text) {
    const std::u16string units = byteUnits(text);
    reply.writeInt32(static_cast<int32_t>(units.size()));
    std::vector<uint8_t> bytes;
    bytes.reserve(units.size() * 2);
    for (char16_t unit : units) {
        bytes.push_back(static_cast<uint8_t>(unit & 0xff));
        bytes.push_back(static_cast<uint8_t>(unit >> 8));
    }
    reply.write(bytes.data(), bytes.size());
}

}  // namespace

struct StandinService::Impl {
    struct Connection {
        int fd = -1;
        std::thread thread;
        std::atomic<bool> done{false};
    };
    using Listener = std::function<void(const TraceEvent&)>;

    std::string root;
    std::string socketPath;
    vigild::platform::host::HostRoot hostRoot;
    vigild::platform::host::FileProperties properties{&hostRoot};

    mutable std::mutex mutex;
    std::condition_variable changed;  // a command queued, a record added, or stopping
    std::deque<std::string> commands;
    std::deque<std::string> documents;
    int waiting = 0;
    bool stopping = false;
    DeviceAnswers answers;
    bool keepRecords = true;
    std::vector<Record> records;
    int lastState = 0;
    Summary summary;  // without waiting and answers, filled in when asked
    uint64_t seq = 0;
    std::deque<TraceEvent> ring;
    size_t ringBytes = 0;
    uint64_t nextListener = 1;
    std::map<uint64_t, std::shared_ptr<Listener>> listeners;
    // Held while listeners run, so events reach them in seq order and a removed listener is
    // known to have finished.
    std::mutex deliver;
    std::atomic<std::thread::id> deliveringThread;

    std::atomic<bool> running{false};
    int listenFd = -1;
    int wakeFds[2] = {-1, -1};
    std::thread acceptThread;
    std::mutex connectionsMutex;
    std::list<std::unique_ptr<Connection>> connections;

    explicit Impl(const std::string& deviceRoot) : root(deviceRoot), hostRoot(deviceRoot) {}

    void acceptLoop();
    void serve(Connection* connection);
    // False when the connection must close without a reply.
    bool handle(int fd, uint32_t code, const std::vector<uint8_t>& request, int32_t* status,
                Parcel* reply, std::string* summary, Record* decoded);
    bool takeCommand(int fd, std::string* command);
    void publish(TraceEvent event);
    void reapFinished();
};

void StandinService::Impl::publish(TraceEvent event) {
    std::lock_guard<std::mutex> order(deliver);
    deliveringThread = std::this_thread::get_id();
    std::vector<std::shared_ptr<Listener>> targets;
    {
        std::lock_guard<std::mutex> lock(mutex);
        event.seq = ++seq;
        const Record& rec = event.decoded;
        const bool refused = event.status != 0 || event.replySummary.rfind("exception: ", 0) == 0;
        if (!refused) {
            auto first = [&rec]() { return rec.strings.empty() ? std::string() : rec.strings[0]; };
            switch (rec.code) {
                case SEND_STATE:
                    if (!rec.ints.empty()) lastState = rec.ints[0];
                    summary.state = lastState;
                    break;
                case SEND_CONFIG:
                    summary.document = first();
                    break;
                case SEND_CONFIG_ERROR_MESSAGE:
                    summary.lastError = first();
                    break;
                case SEND_VERSION: {
                    if (rec.strings.size() != 2) break;
                    auto& v = summary.versions;
                    auto same = std::find_if(v.begin(), v.end(), [&rec](const auto& entry) {
                        return entry.first == rec.strings[0];
                    });
                    if (same == v.end()) {
                        v.emplace_back(rec.strings[0], rec.strings[1]);
                    } else {
                        same->second = rec.strings[1];
                    }
                    break;
                }
                default:
                    if (const auto* t = transaction(rec.code);
                        t != nullptr && t->reply == vigild::protocol::Reply::None) {
                        summary.lastReports[rec.method] = rec;
                    }
                    break;
            }
        }
        summary.lastSeq = event.seq;
        if (keepRecords && event.status == 0) {
            Record legacy = rec;
            if (rec.code == WAIT_FOR_RESPONSE && !refused) legacy.strings = {event.replySummary};
            if (refused) legacy.method += " (refused)";
            records.push_back(std::move(legacy));
        }
        for (const auto& [id, listener] : listeners) targets.push_back(listener);
        ring.push_back(event);
        ringBytes += event.request.size() + event.reply.size();
        if (ring.size() > StandinService::kTraceRing) {
            ringBytes -= ring.front().request.size() + ring.front().reply.size();
            ring.pop_front();
        }
        for (auto it = ring.begin(); ringBytes > StandinService::kTraceBytes && it != ring.end();
             ++it) {
            ringBytes -= it->request.size() + it->reply.size();
            it->request = {};
            it->reply = {};
        }
    }
    changed.notify_all();
    for (const auto& listener : targets) (*listener)(event);
    deliveringThread = std::thread::id();
}

bool StandinService::Impl::takeCommand(int fd, std::string* command) {
    std::unique_lock<std::mutex> lock(mutex);
    waiting++;
    changed.notify_all();
    bool peerGone = false;
    while (commands.empty() && !stopping && !peerGone) {
        changed.wait_for(lock, kPeerCheck);
        struct pollfd p = {fd, POLLRDHUP, 0};
        peerGone = ::poll(&p, 1, 0) > 0 && (p.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
    }
    waiting--;
    changed.notify_all();
    if (commands.empty() || stopping) return false;
    *command = std::move(commands.front());
    commands.pop_front();
    return true;
}

bool StandinService::Impl::handle(int fd, uint32_t code, const std::vector<uint8_t>& request,
                                  int32_t* status, Parcel* reply, std::string* answer,
                                  Record* decoded) {
    *status = 0;
    Record& rec = *decoded;
    rec.code = code;
    const vigild::protocol::Transaction* known = transaction(code);
    if (known == nullptr) {
        *status = vigild::platform::host::kUnknownTransaction;
        rec.method = "unknown";
        *answer = "unknown transaction";
        return true;
    }
    Parcel data(request);
    rec.method = known->method;
    if (!data.enforceInterface(Ivd_service::getInterfaceDescriptor())) {
        reply->writeException(Parcel::kExSecurity, u"Binder invocation to an incorrect interface");
        *answer = "exception: bad interface token";
        return true;
    }

    bool badArguments = false;
    auto readString = [&]() {
        std::string s;
        if (!readWordString(data, &s)) badArguments = true;
        rec.strings.push_back(std::move(s));
    };
    auto readInt = [&]() {
        int32_t v = 0;
        if (!data.readInt32(&v)) badArguments = true;
        rec.ints.push_back(v);
    };
    switch (code) {
        case SEND_CONFIG:
        case SEND_CONFIG_ERROR_MESSAGE:
        case SET_QC_META_ID_VERSION:
            readString();
            break;
        case SEND_VERSION:
            readString();
            readString();
            break;
        case SEND_STATE:
        case ENABLE_NOTIFICATION:
        case SET_TRACE_LEVEL:
        case IS_BT_SNOOPLOG_CONFIG_CHANGED:
        case UPDATE_VALID_USER_STATUS:
        case UPDATE_TW_BUGREPORT_STATUS:
        case WAN_SIGNAL_STRENGTH:
        case FOREGROUND_APPLICATION:
        case SERIAL_NUMBER:
        case MODEL_NUMBER:
        case BSP_NUMBER:
        case WIFI_SIGNAL_STRENGTH:
        case DHCP:
        case GATEWAY:
        case GET_DEFAULT_DIR_PATH:
        case GET_SDCARD_PATH:
        case GET_TELLWICK_VERSION:
        case GET_QC_META_ID_VERSION:
        case DELETE_TW_LOGS:
            readInt();
            break;
        default:
            break;
    }
    if (badArguments) {
        reply->writeException(Parcel::kExIllegalArgument, u"Malformed request");
        *answer = "exception: malformed request";
        return true;
    }

    if (code == WAIT_FOR_RESPONSE) {
        std::string command;
        if (!takeCommand(fd, &command)) return false;
        reply->writeNoException();
        writeByteString16(*reply, command);
        *answer = command;
        return true;
    }

    DeviceAnswers a;
    int state = 0;
    std::string document;
    {
        std::lock_guard<std::mutex> lock(mutex);
        a = answers;
        state = lastState;
        if (code == RECEIVE_CONFIG && !documents.empty()) {
            document = std::move(documents.front());
            documents.pop_front();
        }
    }
    auto valueReply = [&](int32_t value) {
        reply->writeNoException();
        reply->writeInt32(value);
        *answer = std::to_string(value);
    };
    auto stringOutReply = [&](const std::string& text) {
        reply->writeNoException();
        reply->writeInt32(0);  // status
        reply->writeInt32(1);  // count
        writeCountedString(*reply, text);
        *answer = text;
    };
    auto intOutReply = [&](int32_t value) {
        reply->writeNoException();
        reply->writeInt32(0);
        reply->writeInt32(1);
        reply->writeInt32(value);
        *answer = std::to_string(value);
    };
    switch (code) {
        case RECEIVE_CONFIG:
            reply->writeNoException();
            writeByteString16(*reply, document);
            *answer = document;
            break;
        case GET_STATE:
            valueReply(a.stateOverride.value_or(state));
            break;
        case BLUETOOTH_IS_ENABLED:
            valueReply(a.bluetoothEnabled);
            break;
        case BLUETOOTH_IS_DISCOVERABLE:
            valueReply(a.bluetoothDiscoverable);
            break;
        case BLUETOOTH_IS_CONNECTED:
            valueReply(a.bluetoothConnected);
            break;
        case AMBIENT_LIGHT:
            valueReply(a.ambientLight);
            break;
        case WAN_SIGNAL_STRENGTH:
            valueReply(a.wanSignalStrength);
            break;
        case IS_SDCARD_PRESENT:
            valueReply(a.sdcardPresent);
            break;
        case IS_USER_VALID_TO_DEPLOY:
            valueReply(a.userValidToDeploy);
            break;
        case GET_DELETE_LOGS_PARAM:
            valueReply(a.deleteLogsParam);
            break;
        case FOREGROUND_APPLICATION:
            reply->writeNoException();
            reply->writeInt32(0);
            reply->writeInt32(2);
            writeCountedString(*reply, a.foregroundApplication[0]);
            writeCountedString(*reply, a.foregroundApplication[1]);
            *answer = a.foregroundApplication[0] + ", " + a.foregroundApplication[1];
            break;
        case SERIAL_NUMBER:
            stringOutReply(a.serialNumber);
            break;
        case MODEL_NUMBER:
            stringOutReply(a.modelNumber);
            break;
        case BSP_NUMBER:
            stringOutReply(a.bspNumber);
            break;
        case DHCP:
            stringOutReply(a.dhcp);
            break;
        case GATEWAY:
            stringOutReply(a.gateway);
            break;
        case GET_DEFAULT_DIR_PATH:
            stringOutReply(a.defaultDirPath);
            break;
        case GET_SDCARD_PATH:
            stringOutReply(a.sdcardPath);
            break;
        case GET_TELLWICK_VERSION:
            stringOutReply(a.tellwickVersion);
            break;
        case GET_QC_META_ID_VERSION:
            stringOutReply(a.qcMetaIdVersion);
            break;
        case WIFI_SIGNAL_STRENGTH:
            intOutReply(a.wifiSignalStrength);
            break;
        case DELETE_TW_LOGS:
            intOutReply(a.deleteLogsParam);
            break;
        default:
            reply->writeNoException();  // the calls that only report
            break;
    }
    return true;
}

void StandinService::Impl::serve(Connection* connection) {
    const int fd = connection->fd;
    for (;;) {
        uint8_t header[12];
        if (!vigild::platform::host::readAll(fd, header, sizeof(header))) break;
        auto u32 = [&](int at) {
            return static_cast<uint32_t>(header[at]) | static_cast<uint32_t>(header[at + 1]) << 8 |
                   static_cast<uint32_t>(header[at + 2]) << 16 |
                   static_cast<uint32_t>(header[at + 3]) << 24;
        };
        TraceEvent event;
        event.unixMillis = nowMillis();
        {
            std::lock_guard<std::mutex> lock(mutex);
            summary.lastCallMillis = event.unixMillis;
        }
        event.code = u32(0);
        const uint32_t size = u32(8);
        if (size > kMaxFrameSize) break;
        event.request.resize(size);
        if (size > 0 && !vigild::platform::host::readAll(fd, event.request.data(), size)) break;

        int32_t status = 0;
        Parcel reply;
        if (!handle(fd, event.code, event.request, &status, &reply, &event.replySummary,
                    &event.decoded)) {
            break;
        }
        event.name = event.decoded.method;
        event.status = status;
        event.reply = reply.data();
        publish(std::move(event));
        Parcel frame;
        frame.writeInt32(status);
        frame.writeInt32(static_cast<int32_t>(reply.dataSize()));
        std::vector<uint8_t> bytes = frame.data();
        bytes.insert(bytes.end(), reply.data().begin(), reply.data().end());
        if (!vigild::platform::host::writeAll(fd, bytes.data(), bytes.size())) break;
    }
    ::shutdown(fd, SHUT_RDWR);
    connection->done = true;
}

void StandinService::Impl::reapFinished() {
    std::lock_guard<std::mutex> lock(connectionsMutex);
    for (auto it = connections.begin(); it != connections.end();) {
        if ((*it)->done) {
            (*it)->thread.join();
            ::close((*it)->fd);
            it = connections.erase(it);
        } else {
            ++it;
        }
    }
}

void StandinService::Impl::acceptLoop() {
    for (;;) {
        struct pollfd fds[2] = {{listenFd, POLLIN, 0}, {wakeFds[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (fds[1].revents != 0) break;
        if ((fds[0].revents & POLLIN) == 0) continue;
        int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        reapFinished();
        auto connection = std::make_unique<Connection>();
        connection->fd = fd;
        Connection* raw = connection.get();
        std::lock_guard<std::mutex> lock(connectionsMutex);
        connections.push_back(std::move(connection));
        raw->thread = std::thread([this, raw] { serve(raw); });
    }
}

namespace {
std::string withoutTrailingSlash(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}
}  // namespace

StandinService::StandinService(std::string deviceRoot)
    : impl_(std::make_unique<Impl>(withoutTrailingSlash(std::move(deviceRoot)))) {
    impl_->socketPath = impl_->root + "/dev/binder/" + kServiceName;
}

StandinService::~StandinService() { stop(); }

bool StandinService::start() {
    Impl& d = *impl_;
    if (d.running) return true;
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (d.socketPath.size() >= sizeof(addr.sun_path)) {
        errno = ENAMETOOLONG;
        return false;
    }
    for (const std::string& dir : {d.root + "/dev", d.root + "/dev/binder"}) {
        if (::mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) return false;
    }
    memcpy(addr.sun_path, d.socketPath.c_str(), d.socketPath.size() + 1);
    // A socket left by an earlier run would refuse the bind; anything else is not ours, and
    // a socket someone still answers on belongs to a live service.
    struct stat st;
    if (::lstat(d.socketPath.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            errno = EEXIST;
            return false;
        }
        int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const bool live = probe >= 0 && ::connect(probe, reinterpret_cast<struct sockaddr*>(&addr),
                                                  sizeof(addr)) == 0;
        if (probe >= 0) ::close(probe);
        if (live) {
            errno = EADDRINUSE;
            return false;
        }
        ::unlink(d.socketPath.c_str());
    }
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    if (::bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) != 0 ||
        ::listen(fd, 16) != 0 || ::pipe2(d.wakeFds, O_CLOEXEC) != 0) {
        int saved = errno;
        ::close(fd);
        errno = saved;
        return false;
    }
    d.listenFd = fd;
    {
        std::lock_guard<std::mutex> lock(d.mutex);
        d.stopping = false;
    }
    d.running = true;
    d.acceptThread = std::thread([&d] { d.acceptLoop(); });
    return true;
}

void StandinService::stop() {
    Impl& d = *impl_;
    if (!d.running.exchange(false)) return;
    {
        std::lock_guard<std::mutex> lock(d.mutex);
        d.stopping = true;
    }
    d.changed.notify_all();
    const char wake = 1;
    (void)!::write(d.wakeFds[1], &wake, 1);
    d.acceptThread.join();
    ::close(d.listenFd);
    ::close(d.wakeFds[0]);
    ::close(d.wakeFds[1]);
    d.listenFd = d.wakeFds[0] = d.wakeFds[1] = -1;
    ::unlink(d.socketPath.c_str());
    std::lock_guard<std::mutex> lock(d.connectionsMutex);
    // shutdown wakes threads blocked reading their peer.
    for (auto& c : d.connections) ::shutdown(c->fd, SHUT_RDWR);
    for (auto& c : d.connections) {
        c->thread.join();
        ::close(c->fd);
    }
    d.connections.clear();
}

bool StandinService::running() const { return impl_->running; }

void StandinService::queueCommand(const std::string& command) {
    {
        std::lock_guard<std::mutex> lock(impl_->mutex);
        impl_->commands.push_back(command);
    }
    impl_->changed.notify_all();
}

void StandinService::queueConfig(const std::string& document) {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->documents.push_back(document);
}

namespace {
bool withdrawNewest(std::deque<std::string>& queue, const std::string& text) {
    auto it = std::find(queue.rbegin(), queue.rend(), text);
    if (it == queue.rend()) return false;
    queue.erase(std::next(it).base());
    return true;
}
}  // namespace

bool StandinService::withdrawCommand(const std::string& command) {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return withdrawNewest(impl_->commands, command);
}

bool StandinService::withdrawConfig(const std::string& document) {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return withdrawNewest(impl_->documents, document);
}

int StandinService::waitingForCommand() const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->waiting;
}

DeviceAnswers StandinService::answers() const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->answers;
}

void StandinService::setAnswers(const DeviceAnswers& answers) {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->answers = answers;
}

void StandinService::updateAnswers(const std::function<void(DeviceAnswers&)>& change) {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    change(impl_->answers);
}

std::vector<Record> StandinService::records() const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->records;
}

void StandinService::clearRecords() {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->records.clear();
}

namespace {

template <typename T, typename F>
std::vector<T> collect(const std::vector<Record>& records, uint32_t code, F pick) {
    std::vector<T> out;
    for (const Record& r : records) {
        if (r.code == code && r.method.find(' ') == std::string::npos) out.push_back(pick(r));
    }
    return out;
}

int firstInt(const Record& r) { return r.ints.empty() ? 0 : r.ints[0]; }
std::string firstString(const Record& r) { return r.strings.empty() ? "" : r.strings[0]; }

}  // namespace

std::vector<int> StandinService::states() const {
    return collect<int>(records(), SEND_STATE, firstInt);
}

std::vector<std::pair<std::string, std::string>> StandinService::versions() const {
    return collect<std::pair<std::string, std::string>>(
        records(), SEND_VERSION, [](const Record& r) {
            return r.strings.size() == 2 ? std::make_pair(r.strings[0], r.strings[1])
                                         : std::make_pair(std::string(), std::string());
        });
}

std::vector<std::string> StandinService::configs() const {
    return collect<std::string>(records(), SEND_CONFIG, firstString);
}

std::vector<std::string> StandinService::errorMessages() const {
    return collect<std::string>(records(), SEND_CONFIG_ERROR_MESSAGE, firstString);
}

std::vector<int> StandinService::notificationFlags() const {
    return collect<int>(records(), ENABLE_NOTIFICATION, firstInt);
}

std::vector<int> StandinService::btSnoopFlags() const {
    return collect<int>(records(), IS_BT_SNOOPLOG_CONFIG_CHANGED, firstInt);
}

std::vector<int> StandinService::validUserFlags() const {
    return collect<int>(records(), UPDATE_VALID_USER_STATUS, firstInt);
}

std::vector<int> StandinService::bugreportStatuses() const {
    return collect<int>(records(), UPDATE_TW_BUGREPORT_STATUS, firstInt);
}

std::vector<int> StandinService::traceLevels() const {
    return collect<int>(records(), SET_TRACE_LEVEL, firstInt);
}

std::vector<std::string> StandinService::qcMetaIds() const {
    return collect<std::string>(records(), SET_QC_META_ID_VERSION, firstString);
}

bool StandinService::waitUntil(const std::function<bool(const std::vector<Record>&)>& predicate,
                               std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(impl_->mutex);
    return impl_->changed.wait_for(lock, timeout, [&] { return predicate(impl_->records); });
}

void StandinService::keepRecords(bool keep) {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->keepRecords = keep;
    if (!keep) impl_->records = {};
}

Summary StandinService::summary() const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    Summary out = impl_->summary;
    out.waiting = impl_->waiting;
    out.answers = impl_->answers;
    return out;
}

std::string StandinService::property(const std::string& name) const {
    char value[vigild::platform::kPropValueMax] = {};
    impl_->properties.get(name.c_str(), value, "");
    return value;
}

uint64_t StandinService::addTraceListener(std::function<void(const TraceEvent&)> listener) {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    const uint64_t id = impl_->nextListener++;
    impl_->listeners[id] = std::make_shared<Impl::Listener>(std::move(listener));
    return id;
}

void StandinService::removeTraceListener(uint64_t id) {
    {
        std::lock_guard<std::mutex> lock(impl_->mutex);
        impl_->listeners.erase(id);
    }
    // Wait out a delivery in progress, unless this is a listener removing itself.
    if (impl_->deliveringThread.load() != std::this_thread::get_id()) {
        std::lock_guard<std::mutex> wait(impl_->deliver);
    }
}

std::vector<TraceEvent> StandinService::recentTrace(size_t max) const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    const auto& ring = impl_->ring;
    return std::vector<TraceEvent>(ring.end() - static_cast<long>(std::min(max, ring.size())),
                                   ring.end());
}

}  // namespace vdstandin
