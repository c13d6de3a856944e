#pragma once

#include <QJsonObject>

#include <atomic>
#include <string>
#include <vector>

// Level of one message of a node; the value picks the report array.
enum DIAGNOSTIC_MESSAGE_LEVEL {
    DIAGNOSTIC_ERROR = 0,
    DIAGNOSTIC_WARNING = 1,
    DIAGNOSTIC_INFO = 2,
    DIAGNOSTIC_VALID = 3,
    DIAGNOSTIC_NOT_TESTED = 4,
    DIAGNOSTIC_ALL = 5,  // query value only
};

// Report array key of a level ("error", ..., "Unknown" for any other value).
const char* diagnosticLevelKey(DIAGNOSTIC_MESSAGE_LEVEL level);

// One check of the tool. A node fills the JSON object it is handed, files
// leveled messages with addMessage and moves percent up to exactly 100 on every
// path. Nodes live until the process ends and are never deleted through this
// base, so the destructor is deliberately not virtual.
class DiagnosticNode {
public:
    struct Message {
        DIAGNOSTIC_MESSAGE_LEVEL level;
        std::string text;
    };

    explicit DiagnosticNode(std::string name);

    virtual void runDiagnostic(QJsonObject& result) = 0;

    // Files the message in the node's list and in `result` under its level key.
    void addMessage(QJsonObject& result, DIAGNOSTIC_MESSAGE_LEVEL level, std::string text);
    std::vector<std::string> getSpecificMessageList(DIAGNOSTIC_MESSAGE_LEVEL level);

    // Percent is polled without a lock. The store releases and the load
    // acquires, so a watcher that reads 100 also sees every message added
    // before it (the watchers read `messages` only then).
    void setPercent(float value) { percent.store(value, std::memory_order_release); }
    float getPercent() const { return percent.load(std::memory_order_acquire); }

    std::string name;
    // Written by the worker, read by the watchers with no lock: an atomic.
    std::atomic<float> percent{0.f};
    std::vector<Message> messages;
    std::string statusText;

protected:
    ~DiagnosticNode() = default;
};
