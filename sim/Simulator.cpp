#include "sim/Simulator.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonParseError>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "sim/Registry.h"
#include "sim/SimBackend.h"

namespace sim {

namespace {

std::mutex g_installedMutex;
std::shared_ptr<Machine> g_installed;

// Line and column of a character offset, for JSON syntax errors.
std::string position(const std::string& text, int offset) {
    int line = 1, column = 1;
    for (int i = 0; i < offset && i < static_cast<int>(text.size()); ++i) {
        if (text[i] == '\n') {
            ++line;
            column = 1;
        } else {
            ++column;
        }
    }
    return "line " + std::to_string(line) + ", column " + std::to_string(column);
}

}  // namespace

std::shared_ptr<Machine> parseScenario(const std::string& jsonText, const std::string& file) {
    QJsonParseError error{};
    QJsonDocument doc = QJsonDocument::fromJson(QByteArray::fromStdString(jsonText), &error);
    if (error.error != QJsonParseError::NoError)
        throw ScenarioError(file, "",
                            "not valid JSON at " + position(jsonText, error.offset) + ": " +
                                error.errorString().toStdString());
    if (!doc.isObject())
        throw ScenarioError(file, "", "the top level must be a JSON object");
    Entry top(doc.object(), file, "");
    top.allowOnly({"name", "description", "comment", "devices", "usb"});
    auto machine = std::make_shared<Machine>(file);
    machine->setName(top.string("name", file));
    top.string("description", "");
    if (top.has("usb")) {
        Entry usb = top.object("usb");
        usb.allowOnly({"init_error", "list_error", "comment"});
        machine->usbFaults().initError = static_cast<int>(usb.integer("init_error", 0, -99, 0));
        machine->usbFaults().listError = static_cast<int>(usb.integer("list_error", 0, -99, 0));
    }
    if (top.has("devices") && !top.json().value("devices").isArray())
        top.fail("devices", "expected an array");
    for (const Entry& device : top.objects("devices")) {
        std::string type = device.string("type");
        DeviceFactory make = detail::findDeviceType(type);
        if (!make) {
            std::string known;
            for (const auto& t : deviceTypes())
                known += (known.empty() ? "" : ", ") + t;
            device.fail("type", "unknown device type \"" + type + "\" (known: " + known + ")");
        }
        make(device, *machine);
    }
    return machine;
}

std::shared_ptr<Machine> loadScenario(const std::string& path) {
    QFile f(QString::fromStdString(path));
    if (!f.open(QIODevice::ReadOnly))
        throw ScenarioError(path, "", "cannot read the file: " + f.errorString().toStdString());
    QByteArray data = f.readAll();
    return parseScenario(data.toStdString(), path);
}

platform::Backend makeBackend(std::shared_ptr<Machine> machine) {
    platform::Backend b;
    b.sys = std::make_shared<SimSys>(machine);
    b.usb = std::make_shared<SimUsb>(machine);
    b.hid = std::make_shared<SimHid>(machine);
    b.argus = machine->argus();  // null keeps the real (provider-less) one
    b.clock = machine->clock();
    return b;
}

std::shared_ptr<Machine> installScenario(const std::string& path) {
    auto machine = loadScenario(path);
    platform::install(makeBackend(machine));
    std::lock_guard<std::mutex> lock(g_installedMutex);
    g_installed = machine;
    return machine;
}

bool installFromEnvironment() {
    const char* path = std::getenv("KOV_SIMULATION");
    if (path == nullptr || *path == '\0')
        return true;
    try {
        auto machine = installScenario(path);
        std::fprintf(stderr, "Simulation: %s (%s)\n", machine->name().c_str(), path);
        return true;
    } catch (const ScenarioError& e) {
        std::fprintf(stderr, "KOV_SIMULATION: %s\n", e.what());
        return false;
    }
}

std::shared_ptr<Machine> installedMachine() {
    std::lock_guard<std::mutex> lock(g_installedMutex);
    return g_installed;
}

}  // namespace sim
