// The main window over the real node list, on a simulated KOV Pico whose
// Type-C plug is turned, so that only its MCU enumerates (KOV_SIMULATION in the
// test's environment): "Camera Test" fails with the flip message, "Devices"
// does not repeat it, and both rows turn, end with their verdict icon and fold
// out their messages.
#include <QLabel>
#include <QPushButton>
#include <QTest>

#include <memory>

#include "RealRunWatch.h"

namespace {

QApplication* theApp() {
    return qobject_cast<QApplication*>(QCoreApplication::instance());
}

const QString kFlip =
    "<b>Camera not detected</b><br/> Flip the Type-C USB cable connected to the KOV or replug the camera. "
    "Make "
    "sure to use a USB 3.0 port.";

}  // namespace

class TestRealRunFlipped : public QObject {
    Q_OBJECT
private slots:
    void initTestCase();
    void cameraRowsTurnedWhileRunning();
    void cameraTestFailsWithTheFlipMessage();
    void devicesKeepsOnlyItsOwnWarning();
    void errorsLabelShows();
    void cleanupTestCase();

private:
    std::unique_ptr<MainWindow> window;
    std::unique_ptr<RunWatch> watch;
};

void TestRealRunFlipped::initTestCase() {
    window = std::make_unique<MainWindow>(nullptr, theApp(), true, false);
    window->show();
    watch = std::make_unique<RunWatch>(*window);
    QVERIFY(watch->waitForVerdicts(240000));
}

void TestRealRunFlipped::cameraRowsTurnedWhileRunning() {
    QCOMPARE(static_cast<int>(watch->traces.size()), 6);
    for (size_t i : {size_t{4}, size_t{5}}) {
        const RowTrace& t = watch->traces[i];
        QVERIFY2(t.turnedWhileRunning && t.loadingIconWhileRunning, qPrintable(t.name));
        QCOMPARE(t.states[t.states.size() - 2], static_cast<int>(DiagnosticNodeWidget::STATE_RUNNING));
    }
    QCOMPARE(watch->traces[4].name, QString("Camera Test"));
    QCOMPARE(watch->traces[5].name, QString("Devices"));
    QVERIFY(watch->traces[4].lastRunningSample < watch->traces[5].firstRunningSample);
}

void TestRealRunFlipped::cameraTestFailsWithTheFlipMessage() {
    DiagnosticNodeWidget* camera = rowNamed(*window, "Camera Test");
    QVERIFY(camera != nullptr);
    QCOMPARE(camera->getVisualState(), static_cast<int>(DiagnosticNodeWidget::STATE_ERROR));
    QVERIFY(camera->getStatusIcon()->getPixmap().toImage() == RunWatch::scaledIcon(":/images/fail.png", 24));
    QVERIFY(openFoldOut(camera));
    const std::vector<FoldOutRow> rows = foldOutRows(camera);
    QCOMPARE(static_cast<int>(rows.size()), 1);
    QCOMPARE(rows[0].text, kFlip);
    QVERIFY(rows[0].icon == RunWatch::scaledIcon(":/images/fail.png", 20));
}

void TestRealRunFlipped::devicesKeepsOnlyItsOwnWarning() {
    // The camera test said the USB link cannot be judged: the flip message is
    // not given twice, and no bandwidth verdict comes.
    DiagnosticNodeWidget* devices = rowNamed(*window, "Devices");
    QVERIFY(devices != nullptr);
    QCOMPARE(devices->getVisualState(), static_cast<int>(DiagnosticNodeWidget::STATE_WARNING));
    QVERIFY(devices->getStatusIcon()->getPixmap().toImage() ==
            RunWatch::scaledIcon(":/images/warning.png", 24));
    QVERIFY(openFoldOut(devices));
    const std::vector<FoldOutRow> rows = foldOutRows(devices);
    QCOMPARE(static_cast<int>(rows.size()), 1);
    QCOMPARE(rows[0].text, QString("<b>No GMSL driver found.</b><br/> USB camera are not impacted by this."));
    QVERIFY(rows[0].icon == RunWatch::scaledIcon(":/images/warning.png", 20));
}

void TestRealRunFlipped::errorsLabelShows() {
    auto* errors = window->findChild<QLabel*>("errorsLabel");
    QVERIFY(!errors->isHidden());
    QCOMPARE(
        errors->text(),
        QString("Errors occurred<br/>A detailed report can be saved to be shared with support if needed."));
}

void TestRealRunFlipped::cleanupTestCase() {
    window.reset();
}

int main(int argc, char** argv) {
    return realRunMain<TestRealRunFlipped>(argc, argv);
}

#include "test_real_run_flipped.moc"
