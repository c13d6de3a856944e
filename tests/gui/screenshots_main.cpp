// Takes the screenshots of the documentation from the tool's own window over
// the real node list, on the machine the environment describes (a simulated
// camera from KOV_SIMULATION, the stand-in host of scripts/standin_jetson.sh).
// Run it on a display (scripts/screenshots.sh starts Xvfb):
//
//   gui_screenshots splash <folder>           splash.png
//   gui_screenshots healthy <folder>          run_in_progress.png (the camera test
//                                             working), finished_healthy.png
//   gui_screenshots errors <folder> [row]     finished_with_errors.png, with the
//                                             row's messages open (default "Devices")
//   gui_screenshots models <folder>           model_selector.png: three models
//                                             optimised, two more ticked
#include <QApplication>
#include <QDir>
#include <QPushButton>
#include <QTest>

#include <cstdio>
#include <memory>
#include <string>

#include "RealRunWatch.h"
#include "gui/GuiEntry.h"
#include "gui/formModel.h"
#include "gui/mainwindow.h"
#include "gui/modelSelector.h"
#include "sim/Simulator.h"

namespace {

constexpr int kRunTimeoutMs = 240000;  // a whole diagnosis, with room for a busy machine

bool save(QWidget& widget, const QString& path) {
    QTest::qWait(400);  // let the icons and the fold-out animation settle
    const bool ok = widget.grab().save(path);
    std::printf("%s %s\n", ok ? "wrote" : "FAILED", qPrintable(path));
    return ok;
}

bool waitFor(const std::function<bool()>& condition, int timeoutMs) {
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > timeoutMs)
            return false;
        QTest::qWait(20);
    }
    return true;
}

bool splash(QApplication& app, const QString& out) {
    MainWindow window(nullptr, &app, false, false);
    window.show();
    return save(window, out + "/splash.png");
}

// A whole run: a picture while the camera test works, one at the end.
bool healthy(QApplication& app, const QString& out) {
    MainWindow window(nullptr, &app, true, false);
    window.show();
    DiagnosticNodeWidget* camera = rowNamed(window, "Camera Test");
    if (camera == nullptr)
        return false;
    bool ok = waitFor(
        [&] {
            return camera->getVisualState() == DiagnosticNodeWidget::STATE_RUNNING &&
                   camera->getNode()->getPercent() >= 50.f;
        },
        kRunTimeoutMs);
    ok = ok && save(window, out + "/run_in_progress.png");
    RunWatch watch(window);
    ok = ok && watch.waitForVerdicts(kRunTimeoutMs);
    return ok && save(window, out + "/finished_healthy.png");
}

// A run that ends with errors, one row's messages open.
bool errors(QApplication& app, const QString& out, const std::string& rowName) {
    MainWindow window(nullptr, &app, true, false);
    window.show();
    RunWatch watch(window);
    if (!watch.waitForVerdicts(kRunTimeoutMs))
        return false;
    DiagnosticNodeWidget* row = rowNamed(window, rowName);
    if (row == nullptr || !openFoldOut(row)) {
        std::fprintf(stderr, "no row \"%s\" to open\n", rowName.c_str());
        return false;
    }
    return save(window, out + "/finished_with_errors.png");
}

// The model selector with three models optimised by the stand-in AI library
// and two more ticked.
bool models(QApplication& app, const QString& out) {
    MainWindow window(nullptr, &app, false, false);
    ModelSelector* selector = window.modelSelector;
    selector->fill();
    if (selector->rows().size() != 14) {
        std::fprintf(stderr, "the model selector lists %zu models, not 14\n", selector->rows().size());
        return false;
    }
    for (int model : {0, 11, 12})
        selector->rows()[static_cast<size_t>(model)]->getOptimCheckbox()->setChecked(true);
    QMetaObject::invokeMethod(selector, "start_optim");
    if (!waitFor([&] { return !selector->isRunning(); }, 60000))
        return false;
    selector->rows()[3]->getOptimCheckbox()->setChecked(true);
    selector->rows()[4]->getOptimCheckbox()->setChecked(true);
    selector->resize(selector->sizeHint().expandedTo(QSize(480, 0)));
    selector->show();
    const bool ok = save(*selector, out + "/model_selector.png");
    selector->hide();
    return ok;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: gui_screenshots splash|healthy|errors|models <folder> [row]\n");
        return 2;
    }
    if (!sim::installFromEnvironment())
        return 1;
    const std::string set = argv[1];
    QCoreApplication::setAttribute(Qt::AA_EnableHighDpiScaling);
    QApplication app(argc, argv);
    setUpApplicationIdentity();
    const QString out = QString::fromLocal8Bit(argv[2]);
    QDir().mkpath(out);

    bool ok = false;
    if (set == "splash")
        ok = splash(app, out);
    else if (set == "healthy")
        ok = healthy(app, out);
    else if (set == "errors")
        ok = errors(app, out, argc > 3 ? argv[3] : "Devices");
    else if (set == "models")
        ok = models(app, out);
    else
        std::fprintf(stderr, "unknown picture set \"%s\"\n", set.c_str());
    return ok ? 0 : 1;
}
