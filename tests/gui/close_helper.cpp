// Helper process of the main window tests: runs a window over fake nodes and
// presses the close button, during a run ("during-run": the second node never
// ends) or after it ("after-run").
#include <QApplication>
#include <QPushButton>
#include <QTimer>

#include <cstdio>
#include <memory>

#include "FakeNode.h"
#include "gui/GuiEntry.h"
#include "gui/diagnosticnodewidget.h"
#include "gui/mainwindow.h"

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    setUpApplicationIdentity();
    const bool duringRun = argc > 1 && QString(argv[1]) == "during-run";
    static FakeNode first("KOV SDK");
    static FakeNode second("Processor");
    second.hold = duringRun;
    int code = 0;
    {
        MainWindow window(nullptr, &app, true, {&first, &second});
        QTimer poll;
        poll.setInterval(20);
        QObject::connect(&poll, &QTimer::timeout, [&] {
            const bool ready = duringRun ? second.started.load() : window.runner->finished.load();
            if (!ready)
                return;
            poll.stop();
            std::printf("node started\n");
            QTimer::singleShot(300, [&] {
                std::printf("close pressed\n");
                std::fflush(stdout);
                window.findChild<QPushButton*>("headerCloseButton")->click();
            });
        });
        poll.start();
        code = execMainWindow(app, window);
        std::printf("exec returned normally\n");
    }
    std::printf("update threads %d\n", DiagnosticNodeWidget::liveUpdateThreads());
    return code;
}
