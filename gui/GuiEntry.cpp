#include "gui/GuiEntry.h"

#include <QApplication>
#include <QCoreApplication>
#include <QLoggingCategory>

#include <unistd.h>
#include <cstdio>
#include <memory>

#include "diagnostic/CommandLine.h"
#include "gui/mainwindow.h"
#include "gui/updateDialogs.h"

void setUpApplicationIdentity() {
    QCoreApplication::setOrganizationName("Brennhaven");
    QCoreApplication::setApplicationName("Diagnostic");
    QLoggingCategory::setFilterRules("*=false");
}

int execMainWindow(QApplication& app, MainWindow& window) {
    window.show();
    const int code = app.exec();
    if (window.isBusy()) {
        // Closing during a run: do not wait for the node that is working (it
        // may be a long camera test); end the process now.
        std::fflush(stdout);
        std::fflush(stderr);
        _exit(code);
    }
    return code;
}

int runGraphicalMode(int argc, char** argv, bool autoStart, bool arCheck) {
    // QApplication keeps a reference to argc for its whole life.
    static int appArgc = 0;
    appArgc = argc;
    QCoreApplication::setAttribute(Qt::AA_EnableHighDpiScaling);
    QApplication app(appArgc, argv);
    // The application stands: an abort from here on ends the process instead
    // of falling back to the command line.
    GUICheck = 0;
    setUpApplicationIdentity();
    installUpdateDialogs();
    auto window = std::make_unique<MainWindow>(nullptr, &app, autoStart, arCheck);
    return execMainWindow(app, *window);
}
