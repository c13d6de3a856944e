#include "diagnostic/DisplayCheck.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <fcntl.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "diagnostic/CommandLine.h"

namespace {

bool connectUnix(const std::string& path, bool abstract) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    const size_t offset = abstract ? 1 : 0;
    if (path.size() + offset >= sizeof addr.sun_path)
        return false;
    std::memcpy(addr.sun_path + offset, path.data(), path.size());
    const socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + offset + path.size());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), len) == 0;
    close(fd);
    return ok;
}

// TCP connection with a short time-out (remote X displays).
bool connectTcp(const std::string& host, int port) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list) != 0)
        return false;
    bool ok = false;
    for (addrinfo* a = list; a != nullptr && !ok; a = a->ai_next) {
        const int fd = socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, a->ai_protocol);
        if (fd < 0)
            continue;
        if (connect(fd, a->ai_addr, a->ai_addrlen) == 0) {
            ok = true;
        } else if (errno == EINPROGRESS) {
            pollfd p{fd, POLLOUT, 0};
            int err = 0;
            socklen_t errLen = sizeof err;
            ok = poll(&p, 1, 2000) == 1 && getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &errLen) == 0 &&
                 err == 0;
        }
        close(fd);
    }
    freeaddrinfo(list);
    return ok;
}

bool xDisplayReachable(const std::string& display) {
    std::string host;
    int number = 0;
    if (!parseXDisplay(display, host, number))
        return false;
    if (host.empty() || host == "unix") {
        const std::string socketPath = "/tmp/.X11-unix/X" + std::to_string(number);
        return connectUnix(socketPath, true) || connectUnix(socketPath, false);
    }
    return connectTcp(host, 6000 + number);
}

bool waylandReachable(const std::string& name) {
    if (name.empty())
        return false;
    if (name.front() == '/')
        return connectUnix(name, false);
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime == nullptr || *runtime == '\0')
        return false;
    return connectUnix(std::string(runtime) + "/" + name, false);
}

std::string env(const char* name) {
    const char* v = std::getenv(name);
    return v != nullptr ? v : "";
}

// Prepared before the handler is installed: execv is all the handler calls.
std::vector<std::string> gRestartArgs;
std::vector<char*> gRestartArgv;

void onSigabrt(int) {
    if (GUICheck == 0)
        _exit(1);
    GUICheck = 0;
    execv("/proc/self/exe", gRestartArgv.data());
    _exit(1);
}

}  // namespace

bool parseXDisplay(const std::string& display, std::string& host, int& number) {
    const size_t colon = display.rfind(':');
    if (colon == std::string::npos)
        return false;
    host = display.substr(0, colon);
    // "host::N" (DECnet) and IPv6 literals are not supported.
    if (host.find(':') != std::string::npos)
        return false;
    const std::string rest = display.substr(colon + 1);
    size_t i = 0;
    long value = 0;
    while (i < rest.size() && rest[i] >= '0' && rest[i] <= '9') {
        value = value * 10 + (rest[i] - '0');
        if (value > 65535 - 6000)
            return false;
        ++i;
    }
    if (i == 0)
        return false;
    if (i < rest.size()) {
        if (rest[i] != '.')
            return false;
        for (size_t j = i + 1; j < rest.size(); ++j)
            if (rest[j] < '0' || rest[j] > '9')
                return false;
    }
    number = static_cast<int>(value);
    return true;
}

bool displayReachable() {
    const std::string platform = env("QT_QPA_PLATFORM");
    if (!platform.empty()) {
        const std::string name = platform.substr(0, platform.find(':'));
        if (name == "offscreen" || name == "minimal" || name == "vnc" || name == "linuxfb" ||
            name == "eglfs" || name == "minimalegl")
            return true;
        if (name == "wayland" || name == "wayland-egl")
            return waylandReachable(env("WAYLAND_DISPLAY"));
        if (name == "xcb")
            return xDisplayReachable(env("DISPLAY"));
    }
    if (waylandReachable(env("WAYLAND_DISPLAY")))
        return true;
    return xDisplayReachable(env("DISPLAY"));
}

void installGuiAbortFallback(int argc, char** argv) {
    gRestartArgs.assign(argv, argv + argc);
    gRestartArgs.push_back("-c");
    gRestartArgv.clear();
    for (std::string& a : gRestartArgs)
        gRestartArgv.push_back(&a[0]);
    gRestartArgv.push_back(nullptr);
    std::signal(SIGABRT, onSigabrt);
}
