#pragma once

#include <QJsonObject>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "diagnostic/DiagnosticNode.h"

// A diagnostic node driven by a script: it climbs to 100 in `steps` steps of
// `stepMs` each, optionally waits on a gate, writes `key` = `value` and files
// its messages just before the last percent store, as real nodes do.
class FakeNode : public DiagnosticNode {
public:
    explicit FakeNode(std::string name, std::vector<Message> script = {}, int steps = 2, int stepMs = 20)
        : DiagnosticNode(std::move(name)), script(std::move(script)), steps(steps), stepMs(stepMs) {}
    ~FakeNode() = default;

    void runDiagnostic(QJsonObject& result) override {
        ++runs;
        started = true;
        for (int i = 1; i < steps; ++i) {
            setPercent(100.f * i / steps);
            std::this_thread::sleep_for(std::chrono::milliseconds(stepMs));
        }
        while (hold.load())
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        if (!key.empty())
            result.insert(QString::fromStdString(key), QString::fromStdString(value));
        for (const Message& message : script)
            addMessage(result, message.level, message.text);
        setPercent(100.f);
    }

    std::vector<Message> script;
    int steps;
    int stepMs;
    std::string key;
    std::string value;
    std::atomic<bool> hold{false};  // keeps the node running until cleared
    std::atomic<bool> started{false};
    std::atomic<int> runs{0};
};
