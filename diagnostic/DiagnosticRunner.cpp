#include "diagnostic/DiagnosticRunner.h"

#include <sys/prctl.h>

#include <chrono>
#include <thread>

bool camera_test_reported_that_USB_should_not_be_tested = false;
bool camera_test_thrown_firmware_error = false;
bool camera_test_thrown_multiple_camera_error = false;
std::string camera_test_bandwidth_message;
int32_t camera_test_bandwidth_message_level = 0;

DiagnosticRunner::DiagnosticRunner(QObject* parent) : QObject(parent) {}

void DiagnosticRunner::useExactSleeps() {
    // The nodes' pauses are deliberate and the camera test makes thousands of
    // short ones (the capture code's waits between control queries): with
    // the kernel's default slack of 50 us each one wakes late by that much,
    // which adds up to a tenth of a second over a diagnosis. Threads that the
    // nodes start from here inherit the setting.
    (void)prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
}

DiagnosticRunner::~DiagnosticRunner() {
    stopAndJoin();
    delete thread;
    for (std::thread* old : oldThreads_)
        delete old;
}

void DiagnosticRunner::runDiagnostic(DiagnosticRunner* self) {
    useExactSleeps();
    camera_test_reported_that_USB_should_not_be_tested = false;
    camera_test_thrown_firmware_error = false;
    camera_test_thrown_multiple_camera_error = false;
    camera_test_bandwidth_message.clear();
    camera_test_bandwidth_message_level = 0;

    const std::vector<DiagnosticNode*> nodes = self->nodes;
    for (size_t i = 1; i <= nodes.size(); ++i) {
        if (!self->running.load(std::memory_order_relaxed))
            break;
        DiagnosticNode* node = nodes[i - 1];
        QJsonObject nodeResult;
        node->runDiagnostic(nodeResult);
        if (self->results != nullptr)
            self->results->insert(QString::fromLatin1(node->name.c_str()), nodeResult);
        // std::this_thread::sleep_for resumes after an interrupting signal.
        if (i < nodes.size())
            std::this_thread::sleep_for(std::chrono::milliseconds(250));
    }
    // Release: an owner that sees `finished` also sees every result stored.
    self->finished.store(true, std::memory_order_release);
    emit self->s_diagnosticFinished();
}

void DiagnosticRunner::start() {
    if (thread != nullptr && thread->joinable()) {
        running.store(false, std::memory_order_relaxed);
        thread->join();
        oldThreads_.push_back(thread);
    }
    running.store(true, std::memory_order_relaxed);
    finished.store(false, std::memory_order_relaxed);
    thread = new std::thread(&DiagnosticRunner::runDiagnostic, this);
}

void DiagnosticRunner::stopAndJoin() {
    running.store(false, std::memory_order_relaxed);
    if (thread != nullptr && thread->joinable())
        thread->join();
}
