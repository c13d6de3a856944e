// Shared set-up of the GMSL daemon link tests: a temporary system root
// (KOV_SYSROOT) holding the daemon's unit file and nv_tegra_release, free
// loopback ports, the stand-in daemon as a child process, and a reset of the
// link state that ArgusCamera keeps for the whole process.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "bh_input/grabber/gmsl/ArgusCamera.h"

extern char** environ;

namespace linktest {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

inline std::chrono::milliseconds since(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
}

// Sets (or unsets) one environment variable and restores it afterwards.
class ScopedEnv {
public:
    ScopedEnv(std::string name, const std::optional<std::string>& value) : name_(std::move(name)) {
        if (const char* old = std::getenv(name_.c_str()))
            old_ = std::string(old);
        if (value)
            ::setenv(name_.c_str(), value->c_str(), 1);
        else
            ::unsetenv(name_.c_str());
    }
    ~ScopedEnv() {
        if (old_)
            ::setenv(name_.c_str(), old_->c_str(), 1);
        else
            ::unsetenv(name_.c_str());
    }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string name_;
    std::optional<std::string> old_;
};

// A temporary folder installed as KOV_SYSROOT while the object lives.
class SysRoot {
public:
    SysRoot() : root_(makeDir()), env_("KOV_SYSROOT", root_.string()) {}
    ~SysRoot() {
        std::error_code ec;
        fs::remove_all(root_, ec);
    }
    const fs::path& path() const { return root_; }
    fs::path unitPath() const { return root_ / "etc/systemd/system/kov_q_daemon.service"; }

    // Writes a file at an absolute system path inside the root.
    fs::path write(const std::string& absolute, const std::string& content) const {
        const fs::path p = root_ / absolute.substr(1);
        fs::create_directories(p.parent_path());
        std::ofstream out(p, std::ios::binary | std::ios::trunc);
        out << content;
        return p;
    }
    fs::path writeUnit(const std::string& content) const {
        return write("/etc/systemd/system/kov_q_daemon.service", content);
    }
    fs::path writeUnit(int port, int portSub) const {
        return writeUnit(
            "[Unit]\nDescription=GMSL camera daemon\n\n[Service]\nType=simple\n"
            "ExecStart=/usr/bin/kov_q_daemon\nPort=" +
            std::to_string(port) + "\nPortSub=" + std::to_string(portSub) +
            "\n\n[Install]\nWantedBy=multi-user.target\n");
    }
    fs::path writeTegraRelease(const std::string& firstLine) const {
        return write("/etc/nv_tegra_release", firstLine + "\n# KERNEL_VARIANT: oot\n");
    }

private:
    static fs::path makeDir() {
        std::string tmpl = (fs::temp_directory_path() / "kov_link_XXXXXX").string();
        if (::mkdtemp(tmpl.data()) == nullptr)
            throw std::runtime_error("mkdtemp failed");
        return fs::path(tmpl);
    }

    fs::path root_;
    ScopedEnv env_;
};

// `count` distinct TCP ports on 127.0.0.1 that were free a moment ago: each
// is bound to port 0, and all are held until every one is known.
inline std::vector<int> freePorts(int count) {
    std::vector<int> fds;
    std::vector<int> ports;
    for (int i = 0; i < count; ++i) {
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = 0;
        socklen_t len = sizeof(addr);
        if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
            ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
            ADD_FAILURE() << "no free loopback port";
            if (fd >= 0)
                ::close(fd);
            break;
        }
        fds.push_back(fd);
        ports.push_back(ntohs(addr.sin_port));
    }
    for (const int fd : fds)
        ::close(fd);
    return ports;
}

// A listening TCP socket on 127.0.0.1:<port>, closed with the object.
class PortHolder {
public:
    explicit PortHolder(int port) {
        fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = htons(static_cast<uint16_t>(port));
        ok_ = fd_ >= 0 && ::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 &&
              ::listen(fd_, 1) == 0;
    }
    ~PortHolder() {
        if (fd_ >= 0)
            ::close(fd_);
    }
    PortHolder(const PortHolder&) = delete;
    PortHolder& operator=(const PortHolder&) = delete;
    bool ok() const { return ok_; }

private:
    int fd_ = -1;
    bool ok_ = false;
};

// The stand-in kov_q_daemon as a child process; stopped (SIGTERM, then
// SIGKILL) and reaped by stop() or the destructor.
class Daemon {
public:
    Daemon(const fs::path& unit, const fs::path& record, std::vector<std::string> extra) : record_(record) {
        std::vector<std::string> args = {KOV_Q_DAEMON_BIN, "--unit",     unit.string(), "--record",
                                         record.string(),  "--lifetime", "60"};
        args.insert(args.end(), extra.begin(), extra.end());
        std::vector<char*> argv;
        for (auto& a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        if (::posix_spawn(&pid_, KOV_Q_DAEMON_BIN, nullptr, nullptr, argv.data(), environ) != 0)
            pid_ = -1;
    }
    ~Daemon() { stop(); }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    // Waits (at most 10 s) until the daemon has both sockets up, which it
    // tells by creating its record file.
    bool waitReady() {
        const auto start = Clock::now();
        while (since(start) < std::chrono::seconds(10)) {
            if (pid_ <= 0 || exited())
                return false;
            if (fs::exists(record_))
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

    std::vector<std::string> lines() const {
        std::vector<std::string> out;
        std::ifstream in(record_);
        std::string line;
        while (std::getline(in, line))
            out.push_back(line);
        return out;
    }

    // The recorded lines once there are at least `count` of them, or what
    // there is after `limit`.
    std::vector<std::string> waitLines(
        size_t count, std::chrono::milliseconds limit = std::chrono::milliseconds(5000)) const {
        const auto start = Clock::now();
        std::vector<std::string> got = lines();
        while (got.size() < count && since(start) < limit) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            got = lines();
        }
        return got;
    }

    void stop() {
        if (pid_ <= 0)
            return;
        if (!exited()) {
            ::kill(pid_, SIGTERM);
            const auto start = Clock::now();
            while (!exited() && since(start) < std::chrono::seconds(5))
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            if (!exited()) {
                ::kill(pid_, SIGKILL);
                ::waitpid(pid_, nullptr, 0);
            }
        }
        pid_ = -1;
    }

private:
    bool exited() {
        if (reaped_)
            return true;
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_)
            reaped_ = true;
        return reaped_;
    }

    fs::path record_;
    pid_t pid_ = -1;
    bool reaped_ = false;
};

// Puts the process-wide link state back to "no camera yet": sockets closed
// before their contexts are terminated.
inline void resetLinkState() {
    ArgusCamera::zmq_socket_pub.reset();
    ArgusCamera::zmq_socket_sub.reset();
    ArgusCamera::zmq_context_pub.reset();
    ArgusCamera::zmq_context_sub.reset();
    ArgusCamera::argus_camera_count = 0;
    ArgusCamera::warning_displayed = false;
}

// Each test starts without a link, in a fresh system root, outside a
// container unless it says otherwise.
class LinkTest : public ::testing::Test {
protected:
    void SetUp() override { resetLinkState(); }
    void TearDown() override { resetLinkState(); }

    SysRoot root;
    ScopedEnv container{"NVIDIA_DRIVER_CAPABILITIES", std::nullopt};
};

}  // namespace linktest
