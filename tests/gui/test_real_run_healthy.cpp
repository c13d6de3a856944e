// The main window over the real node list, on a simulated KOV Pico on a USB 3
// port (KOV_SIMULATION in the test's environment): the six rows in run order,
// each turning while its node runs and ending with its verdict icon; the
// camera rows' verdicts and fold-outs. One diagnosis runs for all the checks.
#include <QLabel>
#include <QPushButton>
#include <QTest>

#include <memory>

#include "RealRunWatch.h"

namespace {

QApplication* theApp() {
    return qobject_cast<QApplication*>(QCoreApplication::instance());
}

const QStringList kRunOrder = {"KOV SDK",   "Processor",   "Graphics Card",
                               "AI Models", "Camera Test", "Devices"};

}  // namespace

class TestRealRunHealthy : public QObject {
    Q_OBJECT
private slots:
    void initTestCase();
    void rowsAreTheSixNodesInRunOrder();
    void eachRowTurnsWhileItsNodeRunsInOrder();
    void eachRowEndsWithItsVerdictIcon();
    void cameraTestPassesAndFoldsOutItsMessages();
    void devicesWarnsOfTheMissingGmslDriverAndFoldsOut();
    void windowIsReadyAgainAfterTheRun();
    void cleanupTestCase();

private:
    std::unique_ptr<MainWindow> window;
    std::unique_ptr<RunWatch> watch;
};

void TestRealRunHealthy::initTestCase() {
    window = std::make_unique<MainWindow>(nullptr, theApp(), true, false);
    window->show();
    watch = std::make_unique<RunWatch>(*window);
    // About 25 s of deliberate pauses; generous for a busy machine.
    QVERIFY(watch->waitForVerdicts(240000));
}

void TestRealRunHealthy::rowsAreTheSixNodesInRunOrder() {
    QStringList names;
    for (DiagnosticNodeWidget* widget : window->nodeWidgets())
        names << widget->findChild<QLabel*>("textLabel")->text();
    QCOMPARE(names, kRunOrder);
    QCOMPARE(static_cast<int>(window->runner->nodes.size()), kRunOrder.size());
}

void TestRealRunHealthy::eachRowTurnsWhileItsNodeRunsInOrder() {
    const std::vector<RowTrace>& traces = watch->traces;
    QCOMPARE(static_cast<int>(traces.size()), kRunOrder.size());
    for (size_t i = 0; i < traces.size(); ++i) {
        const RowTrace& t = traces[i];
        QVERIFY2(t.firstRunningSample >= 0, qPrintable(t.name));
        QVERIFY2(t.turnedWhileRunning, qPrintable(t.name));
        QVERIFY2(t.loadingIconWhileRunning, qPrintable(t.name));
        QVERIFY2(t.percentShownWhileRunning, qPrintable(t.name));
        // Running, then one verdict: never back to running.
        QVERIFY2(t.states.size() >= 2, qPrintable(t.name));
        QCOMPARE(t.states[t.states.size() - 2], static_cast<int>(DiagnosticNodeWidget::STATE_RUNNING));
        if (i > 0) {
            // The 250 ms pause between two nodes separates their running spans.
            QVERIFY2(traces[i - 1].lastRunningSample < t.firstRunningSample, qPrintable(t.name));
        }
    }
}

void TestRealRunHealthy::eachRowEndsWithItsVerdictIcon() {
    const QStringList verdictIcons = {"",
                                      "",
                                      ":/images/info.png",
                                      ":/images/warning.png",
                                      ":/images/fail.png",
                                      ":/images/success.png",
                                      ":/images/notTested.png"};
    for (DiagnosticNodeWidget* widget : window->nodeWidgets()) {
        const QString name = QString::fromStdString(widget->getNode()->name);
        const int state = widget->getVisualState();
        QVERIFY2(state >= DiagnosticNodeWidget::STATE_INFO && state <= DiagnosticNodeWidget::STATE_NOT_TESTED,
                 qPrintable(name));
        QCOMPARE(state, DiagnosticNodeWidget::stateOf(widget->getNode()));
        StatusWidget* icon = widget->getStatusIcon();
        QVERIFY2(!icon->isAnimated(), qPrintable(name));
        QCOMPARE(icon->getRotation(), 0);
        QVERIFY2(icon->getPixmap().toImage() == RunWatch::scaledIcon(verdictIcons[state], 24),
                 qPrintable(name));
        QVERIFY2(widget->findChild<QLabel*>("percentLabel")->text().isEmpty(), qPrintable(name));
        QCOMPARE(widget->getShownMessages(), static_cast<int>(widget->getNode()->messages.size()));
    }
}

void TestRealRunHealthy::cameraTestPassesAndFoldsOutItsMessages() {
    DiagnosticNodeWidget* camera = rowNamed(*window, "Camera Test");
    QVERIFY(camera != nullptr);
    QCOMPARE(camera->getVisualState(), static_cast<int>(DiagnosticNodeWidget::STATE_SUCCESS));
    QVERIFY(!camera->findChild<QPushButton*>("showIssuesButton")->isHidden());
    QVERIFY(!camera->isIssuesOpen());
    QVERIFY(openFoldOut(camera));
    // The scenario's camera is a KOV Pico with the current firmware, 1523.
    const std::vector<FoldOutRow> rows = foldOutRows(camera);
    QCOMPARE(static_cast<int>(rows.size()), 2);
    const QImage success = RunWatch::scaledIcon(":/images/success.png", 20);
    QCOMPARE(rows[0].text, QString("<b>Camera: </b>KOV Pico"));
    QVERIFY(rows[0].icon == success);
    QCOMPARE(rows[1].text, QString("<b>Firmware: </b>1523"));
    QVERIFY(rows[1].icon == success);
}

void TestRealRunHealthy::devicesWarnsOfTheMissingGmslDriverAndFoldsOut() {
    DiagnosticNodeWidget* devices = rowNamed(*window, "Devices");
    QVERIFY(devices != nullptr);
    // Off a Jetson the stand-in dpkg lists no GMSL driver: a warning, and the
    // bandwidth run's verdict.
    QCOMPARE(devices->getVisualState(), static_cast<int>(DiagnosticNodeWidget::STATE_WARNING));
    QVERIFY(openFoldOut(devices));
    const std::vector<FoldOutRow> rows = foldOutRows(devices);
    QCOMPARE(static_cast<int>(rows.size()), 2);
    QCOMPARE(rows[0].text, QString("<b>No GMSL driver found.</b><br/> USB camera are not impacted by this."));
    QVERIFY(rows[0].icon == RunWatch::scaledIcon(":/images/warning.png", 20));
    QCOMPARE(rows[1].text, QString("<b>USB Bandwidth: </b> OK"));
    QVERIFY(rows[1].icon == RunWatch::scaledIcon(":/images/success.png", 20));
    // The camera row stays open beside it.
    QVERIFY(rowNamed(*window, "Camera Test")->isIssuesOpen());
}

void TestRealRunHealthy::windowIsReadyAgainAfterTheRun() {
    for (const char* name : {"restartButton", "saveButton", "optimButton"})
        QVERIFY2(window->findChild<QPushButton*>(name)->isEnabled(), name);
    // The warning of "Devices" alone is enough for the errors label.
    auto* errors = window->findChild<QLabel*>("errorsLabel");
    QVERIFY(!errors->isHidden());
    QCOMPARE(
        errors->text(),
        QString("Errors occurred<br/>A detailed report can be saved to be shared with support if needed."));
    QVERIFY(window->results.contains("Camera Test"));
    QVERIFY(window->results.contains("Devices"));
}

void TestRealRunHealthy::cleanupTestCase() {
    window.reset();
}

int main(int argc, char** argv) {
    return realRunMain<TestRealRunHealthy>(argc, argv);
}

#include "test_real_run_healthy.moc"
