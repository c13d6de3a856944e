#pragma once

#include <QApplication>
#include <QJsonObject>
#include <QString>
#include <QUrl>
#include <QVBoxLayout>
#include <QWidget>

#include <functional>
#include <string>
#include <vector>

#include "diagnostic/DiagnosticNode.h"
#include "diagnostic/DiagnosticRunner.h"

class Style;
class SplashScreen;
class ModelSelector;
class DiagnosticNodeWidget;
namespace Ui {
class MainWindow;
}

// The tool's one top-level window: a frameless panel with a header, the list
// of node widgets and a row of buttons. It owns the runner and the report.
class MainWindow : public QWidget {
    Q_OBJECT
public:
    // Builds the nodes of a full diagnosis (arCheck goes to the graphics check).
    MainWindow(QWidget* parent, QApplication* app, bool autoStart, bool arCheck);
    // Same window over a given node list (used by tests and the screenshot tool).
    MainWindow(QWidget* parent, QApplication* app, bool autoStart, std::vector<DiagnosticNode*> nodes);
    // Waits for the worker to end the node it is in, then goes. The process
    // exit path does not come here while a run is on (see GuiEntry).
    ~MainWindow() override;

    // True while a diagnosis or a model optimisation is under way.
    bool isBusy() const;

    std::vector<DiagnosticNodeWidget*> nodeWidgets() const;

    // Seams for the file dialog and the desktop services, so that tests can
    // answer them; they default to QFileDialog and QDesktopServices.
    static std::function<QString(QWidget*, const QString&, const QString&, const QString&)> saveFileDialog;
    static std::function<bool(const QUrl&)> openUrl;

    Ui::MainWindow* ui;
    QApplication* app;
    DiagnosticRunner* runner;
    QJsonObject results;
    std::string exportPath;
    QVBoxLayout* nodesLayout;
    SplashScreen* splash = nullptr;
    ModelSelector* modelSelector;

public slots:
    void diagnosticFinished();
    void restartOnClick();
    void helpOnClick();
    void contactOnClick();
    void updateDiagnostic();
    void closeOnClick();
    void startOnClick();
    void saveOnClick();
    void optimOnClick();

private:
    void setUp(bool autoStart, const std::vector<DiagnosticNode*>& nodes);
    void startDiagnostic();
    void addDiagnosticNode(DiagnosticNode* node);
    void saveResult();

    static Style* style;
};
