// Main window: form, run and restart flow, errors label, save, links, close.
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QLabel>
#include <QProcess>
#include <QPushButton>
#include <QScrollArea>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

#include "FakeNode.h"
#include "GuiTestUtil.h"
#include "gui/diagnosticnodewidget.h"
#include "gui/mainwindow.h"
#include "gui/modelSelector.h"
#include "gui/splashscreen.h"

namespace {

QApplication* theApp() {
    return qobject_cast<QApplication*>(QCoreApplication::instance());
}

template <typename T>
T* child(QWidget& window, const char* name) {
    T* found = window.findChild<T*>(name);
    if (found == nullptr)
        qWarning("missing object %s", name);
    return found;
}

const char* kButtons[] = {"restartButton", "helpButton", "contactButton",
                          "closeButton",   "saveButton", "optimButton"};

bool allButtonsEnabled(MainWindow& window, bool enabled) {
    for (const char* name : kButtons) {
        if (child<QPushButton>(window, name)->isEnabled() != enabled)
            return false;
    }
    return true;
}

struct Nodes {
    FakeNode sdk{"KOV SDK"};
    FakeNode processor{"Processor"};
    FakeNode gpu{"Graphics Card"};
    FakeNode ai{"AI Models"};
    FakeNode camera{"Camera Test"};
    FakeNode devices{"Devices"};
    std::vector<DiagnosticNode*> list() { return {&sdk, &processor, &gpu, &ai, &camera, &devices}; }
    std::vector<FakeNode*> fakes() { return {&sdk, &processor, &gpu, &ai, &camera, &devices}; }
};

QProcessEnvironment helperEnvironment() {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("QT_QPA_PLATFORM", "offscreen");
    return env;
}

}  // namespace

class TestMainWindow : public QObject {
    Q_OBJECT
private slots:
    void init();
    void formObjectsAndInitialState();
    void splashThenStart();
    void autoStartHasNoSplashAndStartsAtOnce();
    void buttonsDisabledDuringRunAndEnabledAfter();
    void cleanRunLeavesErrorsLabelHidden();
    void infoAndValidDoNotCountAsErrors();
    void notTestedShowsErrorsLabel();
    void statusLabelShowsRunningNodeText();
    void restartRerunsAndClearsExport();
    void cancelledSaveChangesNothing();
    void saveWritesReportVerbatim();
    void saveFailureShowsErrorBox();
    void helpAndContactLinks();
    void optimButtonShowsSelectorNextToWindow();
    void noUpdateThreadOutlivesWindow();
    void closingDuringRunEndsProcessPromptly();
    void closingAfterRunReturnsNormally();
};

void TestMainWindow::init() {
    MainWindow::saveFileDialog = [](QWidget*, const QString&, const QString&, const QString&) {
        return QString();
    };
    MainWindow::openUrl = [](const QUrl&) { return true; };
}

void TestMainWindow::formObjectsAndInitialState() {
    Nodes nodes;
    MainWindow window(nullptr, theApp(), false, nodes.list());
    QCOMPARE(window.objectName(), QString("MainWindow"));
    QCOMPARE(window.windowTitle(), QString("KOV Diagnostic Tool"));
    QVERIFY(window.windowFlags() & Qt::FramelessWindowHint);
    QVERIFY(window.windowFlags() & Qt::WindowSystemMenuHint);
    QVERIFY(window.windowFlags() & Qt::MSWindowsFixedSizeDialogHint);
    QVERIFY(window.testAttribute(Qt::WA_TranslucentBackground));
    QCOMPARE(window.width(), 550);
    QVERIFY(window.maximumHeight() <= 700);

    auto* mainWidget = child<QWidget>(window, "MainWidget");
    QCOMPARE(mainWidget->minimumSize(), QSize(550, 700));
    QCOMPARE(mainWidget->maximumSize(), QSize(550, 700));
    QVERIFY(
        mainWidget->styleSheet().startsWith("#MainWidget{background: rgb(25,25,25);border-radius: 10px;"));
    QVERIFY(child<QWidget>(window, "headerWidget")->styleSheet().contains("border-top-left-radius: 10px"));
    auto* mainLayout = child<QVBoxLayout>(window, "MainLayout");
    QCOMPARE(mainLayout->spacing(), 30);
    QCOMPARE(mainLayout->contentsMargins(), QMargins(0, 0, 0, 30));
    QCOMPARE(child<QHBoxLayout>(window, "headerLayout")->contentsMargins(), QMargins(30, 16, 30, 16));
    QCOMPARE(child<QVBoxLayout>(window, "MainWindowLayout")->spacing(), 0);
    auto* header = child<QLabel>(window, "headerLabel");
    QCOMPARE(header->size(), QSize(120, 16));
    QVERIFY(!header->pixmap(Qt::ReturnByValue).isNull());
    auto* headerClose = child<QPushButton>(window, "headerCloseButton");
    QCOMPARE(headerClose->minimumSize(), QSize(18, 18));
    QCOMPARE(headerClose->maximumSize(), QSize(18, 18));
    QCOMPARE(headerClose->styleSheet(), QString("#headerCloseButton{anchors.topMargin: 0;}"));
    QCOMPARE(child<QLabel>(window, "statusLabel")->maximumHeight(), 30);
    auto* diagnosticLayout = child<QVBoxLayout>(window, "diagnosticLayout");
    QCOMPARE(diagnosticLayout->spacing(), 16);
    QCOMPARE(diagnosticLayout->contentsMargins(), QMargins(30, 0, 30, 0));
    auto* scroll = child<QScrollArea>(window, "scrollArea");
    QVERIFY(scroll->widgetResizable());
    QCOMPARE(scroll->widget()->objectName(), QString("scrollAreaWidgetContents"));
    QCOMPARE(window.nodesLayout->spacing(), 10);
    QCOMPARE(window.nodesLayout->contentsMargins(), QMargins(0, 0, 0, 0));

    QCOMPARE(child<QPushButton>(window, "restartButton")->text(), QString("Restart"));
    QCOMPARE(child<QPushButton>(window, "helpButton")->text(), QString("HelpCenter"));
    QCOMPARE(child<QPushButton>(window, "contactButton")->text(), QString("Contact Support"));
    QCOMPARE(child<QPushButton>(window, "optimButton")->text(), QString("AI Models"));
    QCOMPARE(child<QPushButton>(window, "saveButton")->text(), QString("Save"));
    QCOMPARE(child<QPushButton>(window, "closeButton")->text(), QString("Close"));

    for (const char* hidden : {"contactButton", "helpButton", "closeButton", "errorsLabel", "exportLabel"}) {
        QVERIFY2(child<QWidget>(window, hidden)->isHidden(), hidden);
    }
    QVERIFY(!child<QWidget>(window, "optimButton")->isHidden());
    QVERIFY(!child<QWidget>(window, "restartButton")->isEnabled());
    QVERIFY(!child<QWidget>(window, "contactButton")->isEnabled());
    QVERIFY(child<QWidget>(window, "closeButton")->isEnabled());
    QVERIFY(child<QWidget>(window, "saveButton")->isEnabled());
    QVERIFY(child<QWidget>(window, "optimButton")->isEnabled());
    QCOMPARE(child<QLabel>(window, "errorsLabel")->text(), QString("Errors..."));

    // Six widgets in node order.
    const auto widgets = window.nodeWidgets();
    QCOMPARE(widgets.size(), size_t(6));
    for (size_t i = 0; i < widgets.size(); ++i)
        QCOMPARE(widgets[i]->getNode(), nodes.list()[i]);
    QCOMPARE(window.runner->nodes, nodes.list());
}

void TestMainWindow::splashThenStart() {
    Nodes nodes;
    MainWindow window(nullptr, theApp(), false, nodes.list());
    window.show();
    QVERIFY(window.splash != nullptr);
    QVERIFY(window.splash->isVisible());
    QVERIFY(child<QWidget>(window, "diagnosticWidget")->isHidden());
    QVERIFY(child<QWidget>(window, "statusLabel")->isHidden());
    QTest::qWait(100);
    QVERIFY(!nodes.sdk.started);

    QTest::mouseClick(window.splash->findChild<QPushButton*>("startButton"), Qt::LeftButton);
    QVERIFY(window.splash == nullptr);
    QVERIFY(child<QWidget>(window, "diagnosticWidget")->isVisible());
    QVERIFY(window.findChild<SplashScreen*>() == nullptr ||
            waitUntil([&] { return window.findChild<SplashScreen*>() == nullptr; }));
    QVERIFY(waitUntil([&] { return window.runner->finished.load(); }));
    for (FakeNode* node : nodes.fakes())
        QCOMPARE(node->runs.load(), 1);
}

void TestMainWindow::autoStartHasNoSplashAndStartsAtOnce() {
    Nodes nodes;
    nodes.sdk.hold = true;
    MainWindow window(nullptr, theApp(), true, nodes.list());
    window.show();
    QVERIFY(window.splash == nullptr);
    QVERIFY(window.findChild<SplashScreen*>() == nullptr);
    QVERIFY(child<QWidget>(window, "diagnosticWidget")->isVisible());
    QVERIFY(waitUntil([&] { return nodes.sdk.started.load(); }, 2000));
    QVERIFY(waitUntil([&] { return window.nodeWidgets()[0]->getVisualState() == 1; }, 2000));
    nodes.sdk.hold = false;
    QVERIFY(waitUntil([&] { return window.runner->finished.load(); }));
}

void TestMainWindow::buttonsDisabledDuringRunAndEnabledAfter() {
    Nodes nodes;
    nodes.processor.hold = true;
    MainWindow window(nullptr, theApp(), true, nodes.list());
    window.show();
    QVERIFY(allButtonsEnabled(window, false));
    QVERIFY(window.isBusy());
    QVERIFY(waitUntil([&] { return nodes.processor.started.load(); }));
    QTest::qWait(50);
    QVERIFY(allButtonsEnabled(window, false));
    nodes.processor.hold = false;
    QVERIFY(waitUntil([&] { return allButtonsEnabled(window, true); }));
    QVERIFY(!window.isBusy());
    // The report holds one object per node.
    QCOMPARE(window.results.keys().size(), 6);
}

void TestMainWindow::cleanRunLeavesErrorsLabelHidden() {
    Nodes nodes;
    MainWindow window(nullptr, theApp(), true, nodes.list());
    window.show();
    QVERIFY(waitUntil([&] { return allButtonsEnabled(window, true); }));
    QVERIFY(child<QLabel>(window, "errorsLabel")->isHidden());
}

void TestMainWindow::infoAndValidDoNotCountAsErrors() {
    Nodes nodes;
    nodes.gpu.script = {{DIAGNOSTIC_INFO, "remark"}, {DIAGNOSTIC_VALID, "found it"}};
    MainWindow window(nullptr, theApp(), true, nodes.list());
    window.show();
    QVERIFY(waitUntil([&] { return allButtonsEnabled(window, true); }));
    QVERIFY(child<QLabel>(window, "errorsLabel")->isHidden());
}

void TestMainWindow::notTestedShowsErrorsLabel() {
    Nodes nodes;
    nodes.camera.script = {{DIAGNOSTIC_VALID, "ok"}, {DIAGNOSTIC_NOT_TESTED, "no camera"}};
    MainWindow window(nullptr, theApp(), true, nodes.list());
    window.show();
    QVERIFY(waitUntil([&] { return allButtonsEnabled(window, true); }));
    auto* errors = child<QLabel>(window, "errorsLabel");
    QVERIFY(!errors->isHidden());
    QCOMPARE(
        errors->text(),
        QString("Errors occurred<br/>A detailed report can be saved to be shared with support if needed."));
    QVERIFY(errors->styleSheet().contains("rgb(255,87,87)"));
}

void TestMainWindow::statusLabelShowsRunningNodeText() {
    Nodes nodes;
    nodes.ai.statusText = "Checking model files";
    nodes.ai.hold = true;
    MainWindow window(nullptr, theApp(), true, nodes.list());
    window.show();
    auto* status = child<QLabel>(window, "statusLabel");
    QVERIFY(waitUntil([&] { return nodes.ai.started.load(); }));
    window.updateDiagnostic();
    QCOMPARE(status->text(), QString("Checking model files"));
    QVERIFY(status->isVisible());
    nodes.ai.hold = false;
    QVERIFY(waitUntil([&] { return window.runner->finished.load(); }));
}

void TestMainWindow::restartRerunsAndClearsExport() {
    QTemporaryDir dir;
    Nodes nodes;
    nodes.devices.script = {{DIAGNOSTIC_ERROR, "first run"}};
    MainWindow window(nullptr, theApp(), true, nodes.list());
    window.show();
    QVERIFY(waitUntil([&] { return allButtonsEnabled(window, true); }));
    const QString path = dir.filePath("report.json");
    MainWindow::saveFileDialog = [path](QWidget*, const QString&, const QString&, const QString&) {
        return path;
    };
    QTest::mouseClick(child<QPushButton>(window, "saveButton"), Qt::LeftButton);
    QCOMPARE(QString::fromStdString(window.exportPath), path);
    QVERIFY(!child<QLabel>(window, "errorsLabel")->isHidden());

    nodes.devices.script = {};
    nodes.devices.hold = true;
    QTest::mouseClick(child<QPushButton>(window, "restartButton"), Qt::LeftButton);
    QVERIFY(window.exportPath.empty());
    QVERIFY(child<QLabel>(window, "exportLabel")->isHidden());
    QVERIFY(child<QLabel>(window, "exportLabel")->text().isEmpty());
    QVERIFY(allButtonsEnabled(window, false));
    // The errors label stays as it was until the run ends.
    QVERIFY(waitUntil([&] { return nodes.devices.started.load() && nodes.devices.runs.load() == 2; }));
    QVERIFY(!child<QLabel>(window, "errorsLabel")->isHidden());
    nodes.devices.hold = false;
    QVERIFY(waitUntil([&] { return allButtonsEnabled(window, true); }));
    for (FakeNode* node : nodes.fakes())
        QCOMPARE(node->runs.load(), 2);
    // Each node got a fresh object: the old error array is gone.
    QVERIFY(!window.results.value("Devices").toObject().contains("error"));
    QVERIFY(nodes.devices.messages.empty());
}

void TestMainWindow::cancelledSaveChangesNothing() {
    QTemporaryDir dir;
    Nodes nodes;
    MainWindow window(nullptr, theApp(), true, nodes.list());
    window.show();
    QVERIFY(waitUntil([&] { return allButtonsEnabled(window, true); }));
    QString askedDir, askedTitle, askedFilter;
    MainWindow::saveFileDialog = [&](QWidget*, const QString& title, const QString& start,
                                     const QString& filter) {
        askedTitle = title;
        askedDir = start;
        askedFilter = filter;
        return QString();
    };
    const QString before = QDir(dir.path()).entryList(QDir::Files).join(",");
    QTest::mouseClick(child<QPushButton>(window, "saveButton"), Qt::LeftButton);
    QCOMPARE(askedTitle, QString("Save diagnostic"));
    QCOMPARE(askedDir, QDir::homePath() + "/KOV_Diagnostic_Results.json");
    QCOMPARE(askedFilter, QString("Diagnostic file (.json)"));
    QVERIFY(window.exportPath.empty());
    QVERIFY(child<QLabel>(window, "exportLabel")->isHidden());
    QCOMPARE(QDir(dir.path()).entryList(QDir::Files).join(","), before);
    QVERIFY(allButtonsEnabled(window, true));
}

void TestMainWindow::saveWritesReportVerbatim() {
    QTemporaryDir dir;
    Nodes nodes;
    nodes.processor.key = "model name";
    nodes.processor.value = "100% fast %s %n CPU";
    MainWindow window(nullptr, theApp(), true, nodes.list());
    window.show();
    QVERIFY(waitUntil([&] { return allButtonsEnabled(window, true); }));
    const QString path = dir.filePath("saved.json");
    MainWindow::saveFileDialog = [path](QWidget*, const QString&, const QString&, const QString&) {
        return path;
    };
    window.saveOnClick();
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray written = file.readAll();
    QCOMPARE(written, QJsonDocument(window.results).toJson(QJsonDocument::Indented));
    QVERIFY(written.contains("100% fast %s %n CPU"));
    QCOMPARE(QString::fromStdString(window.exportPath), path);
}

void TestMainWindow::saveFailureShowsErrorBox() {
    Nodes nodes;
    MainWindow window(nullptr, theApp(), true, nodes.list());
    window.show();
    QVERIFY(waitUntil([&] { return allButtonsEnabled(window, true); }));
    MainWindow::saveFileDialog = [](QWidget*, const QString&, const QString&, const QString&) {
        return QString("/nonexistent-dir-for-test/report.json");
    };
    BoxAnswer answer;
    answerNextMessageBox("OK", &answer);
    window.saveOnClick();
    QVERIFY(answer.answered);
    QCOMPARE(answer.title, QString("Error"));
    QCOMPARE(answer.text,
             QString("Cannot create log file. \nPlease run the application with administrator rights."));
    QVERIFY(window.exportPath.empty());
}

void TestMainWindow::helpAndContactLinks() {
    Nodes nodes;
    MainWindow window(nullptr, theApp(), true, nodes.list());
    QVERIFY(waitUntil([&] { return allButtonsEnabled(window, true); }));
    QList<QUrl> opened;
    MainWindow::openUrl = [&](const QUrl& url) {
        opened << url;
        return true;
    };
    window.helpOnClick();
    window.exportPath = "/home/me/KOV_Diagnostic_Results.json";
    window.contactOnClick();
    QCOMPARE(opened.size(), 2);
    QVERIFY(opened[0].toString().endsWith("/hc/en-us"));
    QVERIFY(opened[0].toString().startsWith("http"));
    const QString mail = QUrl::fromPercentEncoding(opened[1].toEncoded());
    QVERIFY(mail.startsWith("mailto:?to="));
    QVERIFY(mail.contains("&subject=Diagnostic tool issue&body=Dear Brennhaven support,"));
    QVERIFY(mail.contains("Please attach the diagnostic file:\n/home/me/KOV_Diagnostic_Results.json"));
    QVERIFY(mail.endsWith("Sincerely,"));
}

void TestMainWindow::optimButtonShowsSelectorNextToWindow() {
    Nodes nodes;
    MainWindow window(nullptr, theApp(), true, nodes.list());
    window.move(100, 80);
    window.show();
    QVERIFY(waitUntil([&] { return allButtonsEnabled(window, true); }));
    // The finished run filled the selector: header and 14 rows.
    QCOMPARE(window.modelSelector->rows().size(), size_t(14));
    QVERIFY(window.modelSelector->headerRow() != nullptr);
    QTest::mouseClick(child<QPushButton>(window, "optimButton"), Qt::LeftButton);
    QVERIFY(window.modelSelector->isVisible());
    QCOMPARE(window.modelSelector->windowTitle(), QString("Model Optimizer"));
    QCOMPARE(window.modelSelector->x(), window.x() + 6);
    window.modelSelector->hide();
}

void TestMainWindow::noUpdateThreadOutlivesWindow() {
    const int before = DiagnosticNodeWidget::liveUpdateThreads();
    {
        Nodes nodes;
        auto window = std::make_unique<MainWindow>(nullptr, theApp(), true, nodes.list());
        window->show();
        QVERIFY(waitUntil([&] { return DiagnosticNodeWidget::liveUpdateThreads() == before + 6; }));
        QVERIFY(waitUntil([&] { return window->runner->finished.load(); }));
        window.reset();
        QCOMPARE(DiagnosticNodeWidget::liveUpdateThreads(), before);
    }
    // Also when the window goes in the middle of a run: the worker ends its node
    // and the widgets' threads are joined.
    Nodes nodes;
    nodes.gpu.steps = 10;
    nodes.gpu.stepMs = 30;
    auto window = std::make_unique<MainWindow>(nullptr, theApp(), true, nodes.list());
    QVERIFY(waitUntil([&] { return nodes.gpu.started.load(); }));
    window.reset();
    QCOMPARE(DiagnosticNodeWidget::liveUpdateThreads(), before);
    QCOMPARE(nodes.ai.runs.load(), 0);  // the stop took effect at the node boundary
}

void TestMainWindow::closingDuringRunEndsProcessPromptly() {
    // The helper starts a run whose second node never ends and presses the
    // header's close button after 300 ms.
    QProcess helper;
    helper.setProgram(QStringLiteral(KOV_GUI_CLOSE_HELPER));
    helper.setArguments({"during-run"});
    helper.setProcessEnvironment(helperEnvironment());
    QElapsedTimer timer;
    timer.start();
    helper.start();
    QVERIFY(helper.waitForStarted(10000));
    QVERIFY2(helper.waitForFinished(30000), "the process waited for the worker");
    QCOMPARE(helper.exitStatus(), QProcess::NormalExit);
    QCOMPARE(helper.exitCode(), 0);
    const QByteArray out = helper.readAllStandardOutput();
    QVERIFY2(out.contains("node started"), out.constData());
    QVERIFY2(out.contains("close pressed"), out.constData());
    QVERIFY2(!out.contains("exec returned normally"), out.constData());
    QVERIFY(timer.elapsed() < 30000);
}

void TestMainWindow::closingAfterRunReturnsNormally() {
    QProcess helper;
    helper.setProgram(QStringLiteral(KOV_GUI_CLOSE_HELPER));
    helper.setArguments({"after-run"});
    helper.setProcessEnvironment(helperEnvironment());
    helper.start();
    QVERIFY(helper.waitForFinished(30000));
    QCOMPARE(helper.exitCode(), 0);
    const QByteArray out = helper.readAllStandardOutput();
    QVERIFY2(out.contains("exec returned normally"), out.constData());
    QVERIFY2(out.contains("update threads 0"), out.constData());
}

QTEST_MAIN(TestMainWindow)
#include "test_main_window.moc"
