// The console of a build without cpp-httplib: "serve --http" says what is missing.
#include "standin/console/console.h"

namespace vdstandin {

bool isLoopbackHost(const std::string& host) {
    return host == "localhost" || host == "::1" || host.rfind("127.", 0) == 0;
}

bool parseConsoleAddress(const std::string&, std::string*, int*, std::string* error) {
    *error = "this vd-standin was built without cpp-httplib (libcpp-httplib-dev): no console";
    return false;
}

struct Console::Impl {};

Console::Console(StandinService&, std::string) {}
Console::~Console() = default;

bool Console::start(const std::string& address, std::string* error) {
    int port = 0;
    std::string host;
    return parseConsoleAddress(address, &host, &port, error);
}

std::string Console::url() const { return ""; }
bool Console::loopbackOnly() const { return true; }
void Console::stop() {}

}  // namespace vdstandin
