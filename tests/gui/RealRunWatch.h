#pragma once

// Helpers of the GUI tests that run the real node list on a simulated machine
// (KOV_SIMULATION in the test's environment): a watcher that samples every row
// of the window while the diagnosis runs, and readers of a row's fold-out.
#include <QApplication>
#include <QElapsedTimer>
#include <QImage>
#include <QLabel>
#include <QLayout>
#include <QPixmap>
#include <QTest>

#include <cstdio>
#include <string>
#include <vector>

#include "gui/GuiEntry.h"
#include "gui/diagnosticnodewidget.h"
#include "gui/mainwindow.h"
#include "gui/statuswidget.h"
#include "sim/Simulator.h"

// What one row showed over a run, sampled every few milliseconds.
struct RowTrace {
    QString name;
    std::vector<int> states;  // each state once, in the order they came
    int firstRunningSample = -1;
    int lastRunningSample = -1;
    bool turnedWhileRunning = false;  // the icon rotated in the running state
    bool loadingIconWhileRunning = false;
    bool percentShownWhileRunning = false;  // "NN%" beside the name
};

class RunWatch {
public:
    explicit RunWatch(MainWindow& window) : window_(window) {
        for (DiagnosticNodeWidget* widget : window.nodeWidgets()) {
            RowTrace trace;
            trace.name = QString::fromStdString(widget->getNode()->name);
            traces.push_back(trace);
        }
    }

    // Samples until the runner has finished and every row shows a verdict;
    // false after `timeoutMs`.
    bool waitForVerdicts(int timeoutMs) {
        QElapsedTimer timer;
        timer.start();
        for (;;) {
            sample();
            if (window_.runner->finished.load() && allVerdicts())
                return true;
            if (timer.elapsed() > timeoutMs)
                return false;
            QTest::qWait(5);
        }
    }

    std::vector<RowTrace> traces;

private:
    void sample() {
        const std::vector<DiagnosticNodeWidget*> widgets = window_.nodeWidgets();
        for (size_t i = 0; i < widgets.size() && i < traces.size(); ++i) {
            RowTrace& trace = traces[i];
            DiagnosticNodeWidget* widget = widgets[i];
            const int state = widget->getVisualState();
            if (trace.states.empty() || trace.states.back() != state)
                trace.states.push_back(state);
            if (state != DiagnosticNodeWidget::STATE_RUNNING)
                continue;
            if (trace.firstRunningSample < 0)
                trace.firstRunningSample = samples_;
            trace.lastRunningSample = samples_;
            StatusWidget* icon = widget->getStatusIcon();
            trace.turnedWhileRunning |= icon->isAnimated() && icon->animationDuration() == 750;
            trace.loadingIconWhileRunning |=
                icon->getPixmap().toImage() == scaledIcon(":/images/loading.png", 24);
            const QString percent = widget->findChild<QLabel*>("percentLabel")->text();
            trace.percentShownWhileRunning |= percent.endsWith('%');
        }
        ++samples_;
    }

    bool allVerdicts() const {
        for (DiagnosticNodeWidget* widget : window_.nodeWidgets()) {
            if (widget->getVisualState() < DiagnosticNodeWidget::STATE_INFO)
                return false;
        }
        return true;
    }

public:
    static QImage scaledIcon(const QString& path, int side) {
        return QPixmap(path).scaled(side, side, Qt::KeepAspectRatio, Qt::SmoothTransformation).toImage();
    }

private:
    MainWindow& window_;
    int samples_ = 0;
};

// One row of a node's fold-out: its icon and its text.
struct FoldOutRow {
    QImage icon;
    QString text;
};

inline std::vector<FoldOutRow> foldOutRows(DiagnosticNodeWidget* widget) {
    std::vector<FoldOutRow> rows;
    QLayout* layout = widget->getIssuesLayout();
    for (int i = 0; i < layout->count(); ++i) {
        QLayout* row = layout->itemAt(i)->layout();
        if (row == nullptr || row->count() < 2)
            continue;
        auto* icon = qobject_cast<QLabel*>(row->itemAt(0)->widget());
        auto* text = qobject_cast<QLabel*>(row->itemAt(1)->widget());
        if (icon == nullptr || text == nullptr)
            continue;
        rows.push_back({icon->pixmap(Qt::ReturnByValue).toImage(), text->text()});
    }
    return rows;
}

inline DiagnosticNodeWidget* rowNamed(MainWindow& window, const std::string& name) {
    for (DiagnosticNodeWidget* widget : window.nodeWidgets()) {
        if (widget->getNode()->name == name)
            return widget;
    }
    return nullptr;
}

// Opens a row's fold-out with a click on its name, and waits until the
// fold-out animation has ended.
inline bool openFoldOut(DiagnosticNodeWidget* widget) {
    QTest::mouseClick(widget->findChild<QLabel*>("textLabel"), Qt::LeftButton);
    QWidget* container = widget->findChild<QWidget*>("issuesContainer");
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < 5000) {
        if (widget->isIssuesOpen() && container->isVisible() && container->height() > 0)
            return true;
        QTest::qWait(10);
    }
    return false;
}

// The stand-in commands of the end-to-end tests (dpkg, lscpu, ...) come first
// on PATH, so that the host checks do not depend on what this machine has.
inline void useStandinCommands() {
    const QByteArray path = qgetenv("PATH");
    qputenv("PATH", QByteArray(KOV_SOURCE_DIR "/tests/e2e/bin:") + path);
}

// main() of such a test: installs the simulated machine as the tool does,
// then runs the test object under a QApplication.
template <typename Test>
int realRunMain(int argc, char** argv) {
    if (qgetenv("KOV_SIMULATION").isEmpty()) {
        std::fprintf(stderr, "KOV_SIMULATION must name the scenario of this test\n");
        return 1;
    }
    if (!sim::installFromEnvironment())
        return 1;
    useStandinCommands();
    QApplication app(argc, argv);
    setUpApplicationIdentity();
    Test test;
    return QTest::qExec(&test, argc, argv);
}
