// Stand-in for the GMSL daemon kov_q_daemon, for tests and simulated runs.
//
// It reads its two ports from a systemd unit file ([Service] Port and
// PortSub), receives on a PULL socket bound to 127.0.0.1:<Port>, writes every
// message it receives as one line of a record file (flushed at once), and
// answers "REPORT" on a PUSH socket connected to 127.0.0.1:<PortSub>. It ends
// on SIGTERM or SIGINT, or when its lifetime is over.
//
//   kov_q_daemon --unit FILE --record FILE [--version V | --silent | --reply TEXT]
//                [--lifetime SECONDS]
//
//   --version V    answer REPORT with "KOVQD#V" (default V: 35.3.1)
//   --silent       never answer
//   --reply TEXT   answer REPORT with TEXT as it is (a malformed reply)
//   --lifetime S   end after S seconds (default 60)
//
// The record file is created (emptied) once both sockets are up, so a test
// can wait for it before it talks to the daemon. Exit codes: 0 after a stop,
// 2 for bad arguments or an unreadable unit file, 3 when a socket fails.

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

// Narrow form only, compiled from the header (as in ArgusCameraLink.cpp).
#define SI_NO_CONVERSION
#define SI_IMPLEMENTATION
#include <SimpleIni.h>
#include <zmq.hpp>

namespace {

volatile std::sig_atomic_t g_stop = 0;

void onSignal(int) {
    g_stop = 1;
}

struct Options {
    std::string unit;
    std::string record;
    std::string reply = "KOVQD#35.3.1";
    bool silent = false;
    double lifetime = 60.0;
};

bool parseArgs(int argc, char** argv, Options& opt) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--silent") {
            opt.silent = true;
        } else if (!hasValue) {
            std::fprintf(stderr, "kov_q_daemon: %s needs a value\n", arg.c_str());
            return false;
        } else if (arg == "--unit") {
            opt.unit = argv[++i];
        } else if (arg == "--record") {
            opt.record = argv[++i];
        } else if (arg == "--version") {
            opt.reply = std::string("KOVQD#") + argv[++i];
        } else if (arg == "--reply") {
            opt.reply = argv[++i];
        } else if (arg == "--lifetime") {
            char* end = nullptr;
            opt.lifetime = std::strtod(argv[++i], &end);
            if (end == argv[i] || opt.lifetime <= 0.0) {
                std::fprintf(stderr, "kov_q_daemon: bad lifetime\n");
                return false;
            }
        } else {
            std::fprintf(stderr, "kov_q_daemon: unknown argument %s\n", arg.c_str());
            return false;
        }
    }
    if (opt.unit.empty() || opt.record.empty()) {
        std::fprintf(stderr,
                     "usage: kov_q_daemon --unit FILE --record FILE [--version V | --silent | "
                     "--reply TEXT] [--lifetime SECONDS]\n");
        return false;
    }
    return true;
}

bool isReport(const std::string& text) {
    const std::string verb = "#REPORT";
    return text.size() >= verb.size() && text.compare(text.size() - verb.size(), verb.size(), verb) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    if (!parseArgs(argc, argv, opt))
        return 2;

    CSimpleIniA ini(true, false, false);
    if (ini.LoadFile(opt.unit.c_str()) < 0) {
        std::fprintf(stderr, "kov_q_daemon: cannot read %s\n", opt.unit.c_str());
        return 2;
    }
    const long port = std::strtol(ini.GetValue("Service", "Port", "20206"), nullptr, 10);
    const long portSub = std::strtol(ini.GetValue("Service", "PortSub", "20207"), nullptr, 10);

    std::signal(SIGTERM, onSignal);
    std::signal(SIGINT, onSignal);

    int rc = 0;
    FILE* record = nullptr;
    try {
        zmq::context_t context(1);
        zmq::socket_t in(context, zmq::socket_type::pull);
        zmq::socket_t out(context, zmq::socket_type::push);
        in.set(zmq::sockopt::linger, 0);
        out.set(zmq::sockopt::linger, 0);
        in.bind("tcp://127.0.0.1:" + std::to_string(port));
        out.connect("tcp://127.0.0.1:" + std::to_string(portSub));

        record = std::fopen(opt.record.c_str(), "w");
        if (record == nullptr) {
            std::fprintf(stderr, "kov_q_daemon: cannot write %s\n", opt.record.c_str());
            return 2;
        }

        const auto deadline = std::chrono::steady_clock::now() +
                              std::chrono::milliseconds(static_cast<long long>(opt.lifetime * 1000.0));
        zmq::pollitem_t items[] = {{in.handle(), 0, ZMQ_POLLIN, 0}};
        while (g_stop == 0 && std::chrono::steady_clock::now() < deadline) {
            // A signal makes the poll fail with EINTR, which arrives here as an
            // exception; with the stop flag set that is a normal end.
            zmq::poll(items, 1, std::chrono::milliseconds(50));
            if ((items[0].revents & ZMQ_POLLIN) == 0)
                continue;
            zmq::message_t msg;
            if (!in.recv(msg, zmq::recv_flags::dontwait))
                continue;
            const std::string text = msg.to_string();
            std::fprintf(record, "%s\n", text.c_str());
            std::fflush(record);
            if (isReport(text) && !opt.silent)
                (void)out.send(zmq::buffer(opt.reply), zmq::send_flags::dontwait);
        }
    } catch (const zmq::error_t& e) {
        if (g_stop == 0) {
            std::fprintf(stderr, "kov_q_daemon: %s\n", e.what());
            rc = 3;
        }
    }
    if (record != nullptr)
        std::fclose(record);
    return rc;
}
