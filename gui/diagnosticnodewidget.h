#pragma once

#include <QPropertyAnimation>
#include <QVBoxLayout>
#include <QWidget>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "diagnostic/DiagnosticNode.h"

class Style;
class StatusWidget;
namespace Ui {
class DiagnosticNodeWidget;
}

// One diagnostic node in the main window: status icon, name, percent and a
// fold-out list of its messages. A thread of its own asks the GUI thread to
// redraw it every 50 ms; all reading of the node happens on the GUI thread.
class DiagnosticNodeWidget : public QWidget {
    Q_OBJECT
public:
    // The visual states and the icon each shows.
    enum VisualState {
        STATE_IDLE = 0,
        STATE_RUNNING = 1,
        STATE_INFO = 2,
        STATE_WARNING = 3,
        STATE_ERROR = 4,
        STATE_SUCCESS = 5,
        STATE_NOT_TESTED = 6,
    };

    DiagnosticNodeWidget(QWidget* parent, DiagnosticNode* node);
    // Stops and joins the update thread before the widget goes.
    ~DiagnosticNodeWidget() override;

    // The update thread's body.
    static void run(DiagnosticNodeWidget* self);

    // The state a node shows, from its percent and messages.
    static int stateOf(DiagnosticNode* node);
    // The resource image of a state and of a message level.
    static QString iconForState(int state);
    static QString iconForLevel(DIAGNOSTIC_MESSAGE_LEVEL level);

    DiagnosticNode* getNode() const { return node; }
    int getVisualState() const { return visualState; }
    int getShownMessages() const { return shownMessages; }
    bool isIssuesOpen() const { return issuesOpen; }
    StatusWidget* getStatusIcon() const { return statusIcon; }
    QVBoxLayout* getIssuesLayout() const { return issuesLayout; }
    // Update threads alive in the process, over all widgets.
    static int liveUpdateThreads() { return liveThreads.load(); }

signals:
    void s_updateUi();
    void s_notifyUpdated();

public slots:
    void onShowIssuesClick();
    void updateUi();
    void onShowIssuesAnimationEnd();

private:
    void clearIssues();
    void addIssueRow(const DiagnosticNode::Message& message);

    DiagnosticNode* node;
    bool issuesOpen = false;
    Ui::DiagnosticNodeWidget* ui;
    std::thread updateThread;
    std::atomic<bool> stop{false};
    int shownMessages = 0;
    int visualState = STATE_IDLE;
    StatusWidget* statusIcon = nullptr;
    QVBoxLayout* issuesLayout = nullptr;
    QPropertyAnimation* issuesAnimation = nullptr;

    // Wakes the update thread at once when the widget goes.
    std::mutex stopMutex;
    std::condition_variable stopCondition;

    static Style* style;
    static std::atomic<int> liveThreads;
};
