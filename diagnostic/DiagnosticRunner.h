#pragma once

#include <QJsonObject>
#include <QObject>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "diagnostic/DiagnosticNode.h"

// Verdicts the camera nodes hand to one another within one run; the runner
// clears them when a run starts and nothing else resets them.
extern bool camera_test_reported_that_USB_should_not_be_tested;
extern bool camera_test_thrown_firmware_error;
extern bool camera_test_thrown_multiple_camera_error;
extern std::string camera_test_bandwidth_message;
extern int32_t camera_test_bandwidth_message_level;

// Runs the nodes one after the other on one worker thread. The owner sets
// `results` and `running`, then starts runDiagnostic on a thread of its own.
class DiagnosticRunner : public QObject {
    Q_OBJECT
public:
    explicit DiagnosticRunner(QObject* parent = nullptr);
    // Waits for a worker still running and releases the thread objects.
    ~DiagnosticRunner() override;

    // The thread body.
    static void runDiagnostic(DiagnosticRunner* self);
    // Makes the calling thread's sleeps end when asked, without the kernel's
    // timer slack; the thread body calls it first.
    static void useExactSleeps();

    // Starts the worker on `thread` (the owner keeps the pointer; a restart
    // joins the previous thread first).
    void start();
    // Asks for a stop at the next node boundary and waits for the worker.
    void stopAndJoin();

    std::thread* thread = nullptr;
    // Polled without a lock by the watchers: atomics. `finished` is stored with
    // release, so a watcher that loads it (acquire) may then read `results`.
    std::atomic<bool> running{true};
    std::atomic<bool> finished{false};
    std::vector<DiagnosticNode*> nodes;
    QJsonObject* results = nullptr;

signals:
    void s_diagnosticFinished();

private:
    std::vector<std::thread*> oldThreads_;
};
