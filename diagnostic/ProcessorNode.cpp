#include "diagnostic/ProcessorNode.h"

#include <sys/sysinfo.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "utils/SysPath.h"

namespace {

// Runs `cmd` through the shell and reads its output in pieces of `piece`
// bytes. `ok` is false when the shell could not be started.
std::string readPipe(const std::string& cmd, size_t piece, bool& ok) {
    std::string output;
    FILE* pipe = popen(cmd.c_str(), "r");
    ok = pipe != nullptr;
    if (pipe == nullptr)
        return output;
    std::unique_ptr<char[]> buffer(new char[piece]);
    size_t n = 0;
    while ((n = std::fread(buffer.get(), 1, piece, pipe)) > 0)
        output.append(buffer.get(), n);
    pclose(pipe);
    return output;
}

// Quotes a path for the shell.
std::string shellQuote(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) {
        if (c == '\'')
            quoted += "'\\''";
        else
            quoted += c;
    }
    return quoted + "'";
}

// Reads a whole file; `ok` is false when it cannot be opened.
std::string readWholeFile(const std::string& path, bool& ok) {
    std::ifstream in(path, std::ios::binary);
    ok = static_cast<bool>(in);
    if (!ok)
        return {};
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

std::string removeLineFeeds(std::string text) {
    std::string out;
    for (char c : text)
        if (c != '\n')
            out += c;
    return out;
}

std::string gigabytes(double value) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%f", value);
    return buffer;
}

}  // namespace

std::string executeCMD(std::string cmd) {
    bool ok = false;
    std::string output = readPipe(cmd + " 2>&1 2>/dev/null", 10000, ok);
    if (!ok)
        throw std::runtime_error("popen() failed!");
    return output;
}

std::string condenseL4TRelease(const std::string& firstLine) {
    std::string out;
    bool skipping = false;
    bool commaSeen = false;
    for (char c : firstLine) {
        if (c == ' ' || c == '#' || c == 'R')
            continue;
        if (c == '(') {
            out += '.';
            skipping = true;
            continue;
        }
        if (c == ':') {
            skipping = false;
            continue;
        }
        if (c == ',') {
            if (commaSeen)
                break;
            commaSeen = true;
        }
        if (!skipping)
            out += c;
    }
    return out;
}

std::string getL4TVersion(QJsonObject& result) {
    bool ok = false;
    const std::string content = readWholeFile(utils::sysPath("/etc/nv_tegra_release"), ok);
    if (!ok) {
        std::cerr << "Error: Could not open the file." << std::endl;
        result.insert("L4T version", QString("unknown"));
        return "unknown";
    }
    const std::string firstLine = content.substr(0, content.find('\n'));
    const std::string version = condenseL4TRelease(firstLine);
    result.insert("L4T version", QString::fromStdString(version));
    return version;
}

std::string cpuModelFromLine(const std::string& line) {
    const size_t colon = line.find(':');
    if (colon == std::string::npos)
        return {};
    std::string out;
    for (size_t i = colon + 1; i < line.size(); ++i) {
        const char c = line[i];
        if (c == ' ' && !out.empty() && out.back() == ' ')
            continue;
        out += c;
    }
    return out;
}

std::string osNameFromIssue(const std::string& issue) {
    return issue.substr(0, issue.find('\\'));
}

ProcessorNode::ProcessorNode() : DiagnosticNode("Processor") {}

void ProcessorNode::pause() {
    // sleep_for resumes by itself after an interrupting signal.
    if (stepPause.count() > 0)
        std::this_thread::sleep_for(stepPause);
}

void ProcessorNode::runDiagnostic(QJsonObject& result) {
    setPercent(10);
    pause();
    getCPU(result);

    setPercent(20);
    pause();
    {
        const std::time_t now = std::time(nullptr);
        std::tm local{};
        localtime_r(&now, &local);
        char buffer[80];
        std::strftime(buffer, sizeof buffer, "%Y-%m-%d %X", &local);
        result.insert("datetime", QString::fromLocal8Bit(buffer));
    }

    setPercent(35);
    pause();
    getOSName(result);

    setPercent(50);
    pause();
    getCoresThreads(result);

    const QJsonValue coreCount = result.value("coreCount");
    const std::string cpu = result.value("cpu").toString().toStdString();
    const std::string cores = coreCount.toString().toStdString();
    bool rated = false;
    if (coreCount.isString() && !cores.empty()) {
        // A count that does not start with a number is taken as unknown.
        try {
            const int count = std::stoi(cores);
            if (count >= 4)
                addMessage(result, DIAGNOSTIC_VALID, "<b>Processor: </b> " + cpu);
            else
                addMessage(result, DIAGNOSTIC_WARNING,
                           "<b>Processor: </b> " + cpu + " <br/> A Quad-core processor is recommended.");
            rated = true;
        } catch (const std::exception&) {
        }
    }
    if (!rated)
        addMessage(result, DIAGNOSTIC_WARNING,
                   "Unable to identify your processor, make sure that it fits the requirements.");

    setPercent(60);
    pause();
    result.insert("avxSupported", false);

    setPercent(75);
    pause();
    getRAM(result);

    setPercent(90);
    pause();
    getMotherboard(result);
    getL4TVersion(result);

    setPercent(100);
    pause();
}

void ProcessorNode::getCPU(QJsonObject& result) {
    std::string cpu;
    std::ifstream in(utils::sysPath("/proc/cpuinfo"));
    std::string line;
    while (std::getline(in, line)) {
        if (line.find("model name") != std::string::npos) {
            cpu = cpuModelFromLine(line);
            break;
        }
    }
    result.insert("cpu", QString::fromStdString(cpu));
}

void ProcessorNode::getOSName(QJsonObject& result) {
    bool ok = false;
    const std::string issue =
        readPipe("cat " + shellQuote(utils::sysPath("/etc/issue")) + " 2>/dev/null", 128, ok);
    if (!ok) {
        result.insert("OS", QString());
        return;
    }
    std::string name = "Linux Distribution not found";
    if (!issue.empty())
        name = osNameFromIssue(issue);
    result.insert("OS", QString::fromStdString(name));
}

void ProcessorNode::getCoresThreads(QJsonObject& result) {
    bool okCores = false;
    bool okThreads = false;
    const std::string cores =
        readPipe("lscpu | grep ^'CPU(s)' | cut -d':' -f2 | tr -d '[:space:]'", 128, okCores);
    const std::string threads =
        readPipe("lscpu | grep 'Thread(s) per core:' | cut -d':' -f2 | tr -d '[:space:]'", 128, okThreads);
    // A shell that cannot start leaves the answers empty: the rating then says
    // the processor could not be identified.
    const long perCore = std::strtol(threads.c_str(), nullptr, 10);
    const long count = std::strtol(cores.c_str(), nullptr, 10);
    result.insert("coreCount", QString::fromStdString(cores));
    // Absurd answers are clamped rather than overflowing the product.
    long long threadTotal = 0;
    if (__builtin_mul_overflow(static_cast<long long>(count), static_cast<long long>(perCore), &threadTotal))
        threadTotal = (count < 0) != (perCore < 0) ? LLONG_MIN : LLONG_MAX;
    result.insert("threadCount", QString::number(threadTotal));
    result.insert("hyperThreading", QString(perCore > 1 ? "1" : "0"));
}

void ProcessorNode::getRAM(QJsonObject& result) {
    struct sysinfo info {};
    if (sysinfo(&info) == 0) {
        const double unit = info.mem_unit;
        result.insert("ramCapacity", QString::fromStdString(gigabytes(unit * info.totalram / 1e9)));
        result.insert("ramUsed",
                      QString::fromStdString(gigabytes(unit * (info.totalram - info.freeram) / 1e9)));
    } else {
        result.insert("ramCapacity", QString());
        result.insert("ramUsed", QString());
    }
    result.insert("ramUsage", QString());
}

void ProcessorNode::getMotherboard(QJsonObject& result) {
    bool vendorOk = false;
    bool nameOk = false;
    const std::string vendor =
        removeLineFeeds(readWholeFile(utils::sysPath("/sys/devices/virtual/dmi/id/board_vendor"), vendorOk));
    const std::string name =
        removeLineFeeds(readWholeFile(utils::sysPath("/sys/devices/virtual/dmi/id/board_name"), nameOk));
    if (!vendorOk || !nameOk) {
        result.insert("motherboard", QString());
        return;
    }
    const std::string board = name + ", " + vendor;
    result.insert("motherboard", QString::fromStdString(board));
    if (result.value("motherboard").isString() && !name.empty())
        addMessage(result, DIAGNOSTIC_VALID, "<b>Motherboard: </b> " + board);
}
