// The process's link to the GMSL daemon kov_q_daemon: two loopback ZeroMQ
// sockets shared by every ArgusCamera of the process, the status messages the
// cameras send on it, and the start-up check that a container runs the same
// L4T version as its host.

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>

// Only the narrow form of the parser is used (no wide-character converter),
// compiled from the header rather than taken from the packaged library, which
// needs ICU.
#define SI_NO_CONVERSION
#define SI_IMPLEMENTATION
#include <SimpleIni.h>

#include "bh_input/grabber/gmsl/ArgusCamera.h"
#include "utils/SysPath.h"

std::unique_ptr<zmq::context_t> ArgusCamera::zmq_context_pub;
std::unique_ptr<zmq::context_t> ArgusCamera::zmq_context_sub;
// Defined after the contexts so that, at process exit, the sockets are closed
// before their contexts are terminated (a context with an open socket would
// never finish terminating).
std::unique_ptr<zmq::socket_t> ArgusCamera::zmq_socket_pub;
std::unique_ptr<zmq::socket_t> ArgusCamera::zmq_socket_sub;
int32_t ArgusCamera::zmq_type_pub = ZMQ_PUSH;
int32_t ArgusCamera::zmq_type_sub = ZMQ_PULL;
int32_t ArgusCamera::argus_camera_count = 0;
bool ArgusCamera::warning_displayed = false;

namespace {

constexpr const char* kServiceFile = "/etc/systemd/system/kov_q_daemon.service";
constexpr const char* kTegraRelease = "/etc/nv_tegra_release";
constexpr const char* kLoopback = "tcp://127.0.0.1:";
constexpr int kDefaultPort = 20206;
constexpr int kDefaultPortSub = 20207;
constexpr int kReceiveTimeoutMs = 1000;

constexpr const char* kConnectWarning = "[KOV-Q][Warning] Failed to connect to kov_q_daemon.";
constexpr const char* kVersionWarning =
    "[KOV-Q][Warning] Failed to verify the match between the L4T version of the host and the "
    "container. If you are indeed in a container, be sure to run the same L4T version on both.";

// Guards the process-wide link state: its creation and teardown, the sends
// of all camera threads (a ZeroMQ socket is not thread-safe) and the one
// receive of the version check. Recursive because the constructor holds it
// around connectToKOVQDaemon and the version check, which take it too.
std::recursive_mutex& linkMutex() {
    static std::recursive_mutex mutex;
    return mutex;
}

std::vector<std::string> split(const std::string& text, char sep) {
    std::vector<std::string> parts;
    std::istringstream in(text);
    std::string part;
    while (std::getline(in, part, sep))
        parts.push_back(part);
    return parts;
}

// Loads the daemon's unit file. Only a regular file is read: a directory or
// a FIFO at that path must not block or make the parser size a huge buffer.
bool loadServiceFile(CSimpleIniA& ini) {
    const std::string path = utils::sysPath(kServiceFile);
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
        return false;
    FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr)
        return false;
    const SI_Error rc = ini.LoadFile(file);
    std::fclose(file);
    return rc >= 0;
}

// "Section:Key" of a loaded unit file, the default given as text and the
// value converted with strtol base 10.
int portValue(const CSimpleIniA& ini, const std::string& sectionKey, int fallback) {
    const std::vector<std::string> parts = split(sectionKey, ':');
    const std::string section = parts.empty() ? std::string() : parts.front();
    const std::string key = parts.empty() ? std::string() : parts.back();
    const std::string def = std::to_string(fallback);
    const char* text = ini.GetValue(section.c_str(), key.c_str(), def.c_str());
    const long value = std::strtol(text != nullptr ? text : def.c_str(), nullptr, 10);
    if (value > INT_MAX)
        return INT_MAX;
    if (value < INT_MIN)
        return INT_MIN;
    return static_cast<int>(value);
}

// A context with one I/O thread and room for 1023 sockets.
std::unique_ptr<zmq::context_t> makeContext() {
    return std::make_unique<zmq::context_t>(1, 1023);
}

// Closes a socket and terminates its context (shutdown first, then the
// terminate that retries on EINTR). The socket goes first: a context does not
// finish terminating while one of its sockets is open.
void dropSocket(std::unique_ptr<zmq::socket_t>& socket) {
    if (socket) {
        socket->close();
        socket.reset();
    }
}

void dropContext(std::unique_ptr<zmq::context_t>& context) {
    if (context) {
        context->shutdown();
        context->close();  // zmq_ctx_term, repeated while it fails with EINTR
        context.reset();
    }
}

}  // namespace

// Character by character: ' ', '#' and 'R' are dropped; '(' gives '.' and
// skips what follows up to the next ':'; the second ',' ends the scan.
std::string ArgusCamera::reduceL4TRelease(const std::string& text) {
    std::string version;
    bool skip = false;
    bool comma = false;
    for (const char c : text) {
        if (c == ' ' || c == '#' || c == 'R')
            continue;
        if (c == '(') {
            version += '.';
            skip = true;
            continue;
        }
        if (c == ':') {
            skip = false;
            continue;
        }
        if (c == ',') {
            if (comma)
                break;
            comma = true;
        }
        if (!skip)
            version += c;
    }
    return version;
}

int ArgusCamera::readServicePort(const std::string& sectionKey, int fallback, bool* parsed) {
    CSimpleIniA ini(true, false, false);
    const bool ok = loadServiceFile(ini);
    if (parsed != nullptr)
        *parsed = ok;
    if (!ok)
        return fallback;
    return portValue(ini, sectionKey, fallback);
}

bool ArgusCamera::connectToKOVQDaemon() {
    std::lock_guard<std::recursive_mutex> lock(linkMutex());
    port_pub = kDefaultPort;
    CSimpleIniA ini(true, false, false);
    if (!loadServiceFile(ini))
        return false;
    try {
        port_pub = portValue(ini, "Service:Port", kDefaultPort);
        dropSocket(zmq_socket_pub);
        dropContext(zmq_context_pub);
        zmq_context_pub = makeContext();
        zmq_type_pub = ZMQ_PUSH;
        zmq_socket_pub = std::make_unique<zmq::socket_t>(*zmq_context_pub, zmq_type_pub);
        zmq_socket_pub->set(zmq::sockopt::linger, 0);
        zmq_socket_pub->connect(kLoopback + std::to_string(port_pub));

        port_sub = portValue(ini, "Service:PortSub", kDefaultPortSub);
        // The receiving side of an earlier link is still open: close it so
        // that its port is free for the new bind.
        dropSocket(zmq_socket_sub);
        dropContext(zmq_context_sub);
        zmq_context_sub = makeContext();
        zmq_type_sub = ZMQ_PULL;
        zmq_socket_sub = std::make_unique<zmq::socket_t>(*zmq_context_sub, zmq_type_sub);
        zmq_socket_sub->set(zmq::sockopt::linger, 0);
        zmq_socket_sub->set(zmq::sockopt::rcvtimeo, kReceiveTimeoutMs);
        zmq_socket_sub->bind(kLoopback + std::to_string(port_sub));
    } catch (const zmq::error_t&) {
        return false;
    }
    return true;
}

bool ArgusCamera::checkL4TVersionMatchInContainer() {
    if (std::getenv("NVIDIA_DRIVER_CAPABILITIES") == nullptr)
        return true;
    std::lock_guard<std::recursive_mutex> lock(linkMutex());
    if (!zmq_socket_pub || !zmq_socket_sub)
        return false;

    std::ifstream release(utils::sysPath(kTegraRelease), std::ios::binary);
    if (!release.is_open())
        return false;
    std::ostringstream content;
    content << release.rdbuf();
    const std::string local = reduceL4TRelease(content.str());

    std::string reply;
    try {
        sendOnLink(statusMessage(0, 0, "REPORT"));
        zmq::message_t frame;  // EAGAIN after the receive time-out leaves it empty
        if (zmq_socket_sub->recv(frame, zmq::recv_flags::none))
            reply = frame.to_string();
    } catch (const zmq::error_t&) {
        return false;
    }
    return l4tReplyMatches(local, reply);
}

bool ArgusCamera::l4tReplyMatches(const std::string& localVersion, const std::string& reply) {
    if (reply.empty())
        return false;
    const std::vector<std::string> fields = split(reply, '#');
    if (fields.size() < 2)
        return false;
    return localVersion.find(fields[1]) != std::string::npos;
}

void ArgusCamera::joinLink() {
    std::lock_guard<std::recursive_mutex> lock(linkMutex());
    if (argus_camera_count == 0 && !connectToKOVQDaemon())
        std::cout << kConnectWarning << std::endl;
    if (!warning_displayed) {
        if (!checkL4TVersionMatchInContainer())
            std::cout << kVersionWarning << std::endl;
        warning_displayed = true;
    }
    ++argus_camera_count;
    holds_link = true;
}

void ArgusCamera::releaseLink() {
    std::lock_guard<std::recursive_mutex> lock(linkMutex());
    if (!holds_link)
        return;
    holds_link = false;
    --argus_camera_count;
    if (argus_camera_count <= 0 && zmq_socket_pub) {
        // The receiving side stays: it lives until exit or until the next
        // first camera replaces it.
        dropSocket(zmq_socket_pub);
        dropContext(zmq_context_pub);
    }
}

std::string ArgusCamera::statusMessage(int port, int device, const std::string& verb) {
    return "KOVQ#" + std::to_string(port) + "#" + std::to_string(device) + "#" + verb;
}

std::string ArgusCamera::runMessage(int port, int device, uint64_t count) {
    return statusMessage(port, device, "RUN") + "#" + std::to_string(count);
}

bool ArgusCamera::shouldSendRun(uint64_t counter, int fps) {
    if (fps <= 0)
        return counter == 0;
    return counter % static_cast<uint64_t>(fps) == 0;
}

void ArgusCamera::sendStatus(const std::string& verb) {
    sendOnLink(statusMessage(port_index, device_code, verb));
}

void ArgusCamera::sendRun(uint64_t count) {
    sendOnLink(runMessage(port_index, device_code, count));
}

bool ArgusCamera::sendOnLink(const std::string& text) {
    std::lock_guard<std::recursive_mutex> lock(linkMutex());
    if (!zmq_socket_pub)
        return false;
    try {
        zmq::message_t message(text.size());
        if (!text.empty())
            std::memcpy(message.data(), text.data(), text.size());
        // An empty result is EAGAIN (no peer ready): the message is dropped.
        (void)zmq_socket_pub->send(message, zmq::send_flags::dontwait);
    } catch (const zmq::error_t&) {
        return false;
    }
    return true;
}
