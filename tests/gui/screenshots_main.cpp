// Takes the screenshots of the documentation: the splash, a run in progress, a
// finished run with errors and one node's messages open, and the model
// selector. The window is the real one, driven by scripted nodes so that the
// pictures do not depend on the machine. Run it on a display (the screenshot
// script starts Xvfb): `gui_screenshots <output folder>`.
#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTest>

#include <cstdio>

#include "FakeNode.h"
#include "gui/GuiEntry.h"
#include "gui/diagnosticnodewidget.h"
#include "gui/formModel.h"
#include "gui/mainwindow.h"
#include "gui/modelSelector.h"

namespace {

using M = DiagnosticNode::Message;

bool save(QWidget& widget, const QString& path) {
    QTest::qWait(400);  // let the icons and the fold-out animation settle
    const bool ok = widget.grab().save(path);
    std::printf("%s %s\n", ok ? "wrote" : "FAILED", qPrintable(path));
    return ok;
}

bool waitFor(const std::function<bool()>& condition, int timeoutMs = 20000) {
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > timeoutMs)
            return false;
        QTest::qWait(20);
    }
    return true;
}

const char* kLink = " style='color: #d9ff42;' ";

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication::setAttribute(Qt::AA_EnableHighDpiScaling);
    QApplication app(argc, argv);
    setUpApplicationIdentity();
    const QString out = argc > 1 ? QString(argv[1]) : QString("docs/screenshots");
    QDir().mkpath(out);
    bool ok = true;

    FakeNode sdk("KOV SDK", {{DIAGNOSTIC_VALID, "<b>KOV SDK</b> 4.1.2 is installed."}}, 4, 60);
    FakeNode processor(
        "Processor",
        {{DIAGNOSTIC_WARNING,
          "<b>Processor: </b> 4 cores at 1.9 GHz<br/>A processor with 6 cores or more is recommended."}},
        4, 60);
    FakeNode gpu(
        "Graphics Card",
        {{DIAGNOSTIC_ERROR,
          std::string("Unable to detect your graphics card. Please install <a href='https://download."
                      "brennhaven.com/cuda'") +
              kLink +
              ">CUDA</a> and update your NVIDIA graphics <a href='https://download.brennhaven.com/"
              "nvidia/driver'" +
              kLink + ">drivers</a>."},
         {DIAGNOSTIC_WARNING, "The driver is older than the one recommended for CUDA 12.2."},
         {DIAGNOSTIC_INFO, "<b>Driver:</b> 535.104"}},
        4, 60);
    FakeNode aiNode("AI Models", {{DIAGNOSTIC_INFO, "No AI model is optimised yet: use <b>AI Models</b>."}},
                    4, 60);
    FakeNode camera("Camera Test",
                    {{DIAGNOSTIC_NOT_TESTED, "No camera was found: the camera test was not run."}}, 4, 60);
    FakeNode devices("Devices", {{DIAGNOSTIC_VALID, "USB 3.0 controller found."}}, 4, 60);
    std::vector<DiagnosticNode*> nodes = {&sdk, &processor, &gpu, &aiNode, &camera, &devices};

    // 1. The splash.
    {
        MainWindow window(nullptr, &app, false, nodes);
        window.show();
        ok &= save(window, out + "/splash.png");
    }

    // 2. A run in progress: the graphics check is working.
    gpu.hold = true;
    gpu.statusText = "Reading the graphics driver";
    MainWindow window(nullptr, &app, true, nodes);
    window.show();
    ok &= waitFor([&] { return gpu.started.load(); });
    QTest::qWait(300);
    window.updateDiagnostic();
    ok &= save(window, out + "/run_in_progress.png");

    // 3. The finished run with the errors label and one node's messages open.
    gpu.hold = false;
    ok &= waitFor([&] {
        return window.runner->finished.load() && window.findChild<QPushButton*>("saveButton")->isEnabled();
    });
    QTest::qWait(300);
    for (DiagnosticNodeWidget* widget : window.nodeWidgets()) {
        if (widget->getNode() == &gpu)
            widget->onShowIssuesClick();
    }
    ok &= save(window, out + "/finished_with_errors.png");

    // 4. The model selector, with a few models optimised (stand-in AI library
    // when the script provides one) and two ticked.
    ModelSelector* selector = window.modelSelector;
    selector->fill();
    if (selector->rows().size() == 14) {
        for (int model : {0, 11, 12})
            selector->rows()[static_cast<size_t>(model)]->getOptimCheckbox()->setChecked(true);
        QMetaObject::invokeMethod(selector, "start_optim");
        waitFor([&] { return !selector->isRunning(); });
        selector->rows()[3]->getOptimCheckbox()->setChecked(true);
        selector->rows()[4]->getOptimCheckbox()->setChecked(true);
    }
    selector->resize(selector->sizeHint().expandedTo(QSize(480, 0)));
    selector->show();
    ok &= save(*selector, out + "/model_selector.png");
    selector->hide();
    return ok ? 0 : 1;
}
