#pragma once

// A minimal HTTP server on 127.0.0.1 for the update check: it answers every
// request with a fixed body, or, in "silent" mode, accepts the connection and
// never answers. Runs on its own thread with plain sockets, so it serves while
// the code under test spins its own event loop.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace testsupport {

class LoopbackHttpServer {
public:
    LoopbackHttpServer() {
        fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        int one = 1;
        ::setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = 0;
        ::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
        ::listen(fd_, 16);
        socklen_t len = sizeof(addr);
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len);
        port_ = ntohs(addr.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~LoopbackHttpServer() {
        stop_ = true;
        thread_.join();
        for (int c : held_)
            ::close(c);
        ::close(fd_);
    }

    std::string host() const { return "http://127.0.0.1:" + std::to_string(port_); }

    void setBody(const std::string& body) {
        std::lock_guard<std::mutex> lock(mutex_);
        body_ = body;
        silent_ = false;
    }
    // Accept connections and never answer them.
    void setSilent() {
        std::lock_guard<std::mutex> lock(mutex_);
        silent_ = true;
    }
    int requests() const { return requests_.load(); }
    std::string lastRequestLine() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return lastRequestLine_;
    }

private:
    void serve() {
        while (!stop_) {
            pollfd p{fd_, POLLIN, 0};
            if (::poll(&p, 1, 50) <= 0)
                continue;
            const int c = ::accept(fd_, nullptr, nullptr);
            if (c < 0)
                continue;
            std::string request;
            char buf[4096];
            while (request.find("\r\n\r\n") == std::string::npos) {
                pollfd q{c, POLLIN, 0};
                if (::poll(&q, 1, 2000) <= 0)
                    break;
                const ssize_t n = ::recv(c, buf, sizeof(buf), 0);
                if (n <= 0)
                    break;
                request.append(buf, static_cast<size_t>(n));
            }
            ++requests_;
            std::string body;
            bool silent;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                lastRequestLine_ = request.substr(0, request.find("\r\n"));
                body = body_;
                silent = silent_;
            }
            if (silent) {
                held_.push_back(c);  // keep it open, unanswered
                continue;
            }
            const std::string reply =
                "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
                std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
            size_t sent = 0;
            while (sent < reply.size()) {
                const ssize_t n = ::send(c, reply.data() + sent, reply.size() - sent, MSG_NOSIGNAL);
                if (n <= 0)
                    break;
                sent += static_cast<size_t>(n);
            }
            ::shutdown(c, SHUT_WR);
            ::close(c);
        }
    }

    int fd_ = -1;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<int> requests_{0};
    mutable std::mutex mutex_;
    std::string body_;
    bool silent_ = false;
    std::string lastRequestLine_;
    std::vector<int> held_;
    std::thread thread_;
};

}  // namespace testsupport
