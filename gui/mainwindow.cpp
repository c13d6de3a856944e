#include "gui/mainwindow.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDesktopServices>
#include <QDir>
#include <QFileDialog>
#include <QIcon>
#include <QJsonDocument>
#include <QMessageBox>
#include <QPixmap>
#include <QScrollBar>

#include <cstdio>

#include "diagnostic/NodeList.h"
#include "gui/colors.h"
#include "gui/diagnosticnodewidget.h"
#include "gui/links.h"
#include "gui/modelSelector.h"
#include "gui/splashscreen.h"
#include "gui/style.h"
#include "ui_mainwindow.h"

Style* MainWindow::style = nullptr;

std::function<QString(QWidget*, const QString&, const QString&, const QString&)> MainWindow::saveFileDialog =
    [](QWidget* parent, const QString& caption, const QString& dir, const QString& filter) {
        return QFileDialog::getSaveFileName(parent, caption, dir, filter);
    };
std::function<bool(const QUrl&)> MainWindow::openUrl = [](const QUrl& url) {
    return QDesktopServices::openUrl(url);
};

namespace {
const char* kReportName = "KOV_Diagnostic_Results.json";
}

MainWindow::MainWindow(QWidget* parent, QApplication* app_, bool autoStart, bool arCheck)
    : MainWindow(parent, app_, autoStart, buildDiagnosticNodes(arCheck)) {}

MainWindow::MainWindow(QWidget* parent, QApplication* app_, bool autoStart,
                       std::vector<DiagnosticNode*> nodes)
    : QWidget(parent), ui(new Ui::MainWindow), app(app_) {
    setUp(autoStart, nodes);
}

void MainWindow::setUp(bool autoStart, const std::vector<DiagnosticNode*>& nodes) {
    if (style == nullptr)
        style = new Style();
    ui->setupUi(this);
    setWindowTitle("KOV Diagnostic Tool");
    setWindowFlags(Qt::FramelessWindowHint | Qt::WindowSystemMenuHint | Qt::MSWindowsFixedSizeDialogHint);
    setAttribute(Qt::WA_TranslucentBackground);

    // Look.
    ui->MainWidget->setStyleSheet(
        QString("#MainWidget{background: %1;border-radius: 10px;border: 2px solid %2}")
            .arg(clr::bh_soil, clr::bh_steel));
    ui->headerWidget->setStyleSheet(
        QString("#headerWidget{background-color: %1;color: %2;border-top-left-radius: 10px;"
                "border-top-right-radius: 10px;border: 2px solid %3;border-bottom: 0px;}")
            .arg(clr::bh_black, clr::bh_pearl, clr::bh_steel));
    ui->headerLabel->setPixmap(
        QPixmap(":/images/BH_white.png").scaled(120, 16, Qt::KeepAspectRatio, Qt::SmoothTransformation));
    ui->headerCloseButton->setIcon(QIcon(":/images/close_bh_pearl.png"));
    ui->headerCloseButton->setIconSize(QSize(18, 18));
    ui->headerCloseButton->setStyleSheet("#headerCloseButton{anchors.topMargin: 0;}");
    // Flat: the icon alone shows on the header, with no button frame.
    ui->headerCloseButton->setFlat(true);
    for (QPushButton* button : {ui->restartButton, ui->helpButton, ui->contactButton, ui->optimButton,
                                ui->saveButton, ui->closeButton}) {
        button->setStyleSheet(style->sheet_button);
        button->setFont(style->font_button);
    }
    ui->statusLabel->setFont(style->font_label);
    ui->statusLabel->setStyleSheet(style->sheet_label_dim);
    ui->exportLabel->setFont(style->font_label);
    ui->exportLabel->setStyleSheet(style->sheet_label);
    ui->scrollArea->verticalScrollBar()->setStyleSheet(style->sheet_scrollbar);

    // Connections.
    connect(ui->restartButton, &QPushButton::released, this, &MainWindow::restartOnClick);
    connect(ui->helpButton, &QPushButton::released, this, &MainWindow::helpOnClick);
    connect(ui->contactButton, &QPushButton::released, this, &MainWindow::contactOnClick);
    connect(ui->closeButton, &QPushButton::released, this, &MainWindow::closeOnClick);
    connect(ui->headerCloseButton, &QPushButton::released, this, &MainWindow::closeOnClick);
    connect(ui->optimButton, &QPushButton::released, this, &MainWindow::optimOnClick);
    connect(ui->saveButton, &QPushButton::released, this, &MainWindow::saveOnClick);

    // Initial state.
    ui->contactButton->hide();
    ui->helpButton->hide();
    ui->closeButton->hide();
    ui->errorsLabel->hide();
    ui->exportLabel->hide();
    ui->optimButton->show();
    ui->restartButton->setEnabled(false);
    ui->contactButton->setEnabled(false);
    ui->closeButton->setEnabled(true);
    ui->saveButton->setEnabled(true);
    ui->optimButton->setEnabled(true);

    ui->diagnosticWidget->setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Expanding);
    nodesLayout = new QVBoxLayout(ui->scrollAreaWidgetContents);
    nodesLayout->setContentsMargins(0, 0, 0, 0);
    nodesLayout->setSpacing(10);
    ui->scrollArea->verticalScrollBar()->setSingleStep(5);

    runner = new DiagnosticRunner(this);
    connect(runner, &DiagnosticRunner::s_diagnosticFinished, this, &MainWindow::diagnosticFinished,
            Qt::QueuedConnection);
    modelSelector = new ModelSelector(nullptr);

    for (DiagnosticNode* node : nodes)
        addDiagnosticNode(node);
    nodesLayout->addStretch(100);

    if (autoStart) {
        startDiagnostic();
    } else {
        ui->diagnosticWidget->hide();
        ui->statusLabel->hide();
        splash = new SplashScreen(this);
        connect(splash, &SplashScreen::s_startOnClick, this, &MainWindow::startOnClick);
        ui->MainLayout->addWidget(splash);
    }
}

MainWindow::~MainWindow() {
    runner->stopAndJoin();
    // The node widgets are children: their update threads are joined as they go.
    delete modelSelector;
    delete ui;
}

bool MainWindow::isBusy() const {
    const bool runnerBusy = runner->thread != nullptr && !runner->finished.load(std::memory_order_relaxed);
    return runnerBusy || (modelSelector != nullptr && modelSelector->isRunning());
}

std::vector<DiagnosticNodeWidget*> MainWindow::nodeWidgets() const {
    std::vector<DiagnosticNodeWidget*> widgets;
    for (int i = 0; i < nodesLayout->count(); ++i) {
        if (auto* widget = qobject_cast<DiagnosticNodeWidget*>(nodesLayout->itemAt(i)->widget())) {
            widgets.push_back(widget);
        }
    }
    return widgets;
}

void MainWindow::addDiagnosticNode(DiagnosticNode* node) {
    runner->nodes.push_back(node);
    auto* widget = new DiagnosticNodeWidget(ui->scrollAreaWidgetContents, node);
    connect(widget, &DiagnosticNodeWidget::s_notifyUpdated, this, &MainWindow::updateDiagnostic);
    widget->setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Preferred);
    nodesLayout->addWidget(widget, 0, Qt::AlignTop);
}

void MainWindow::startOnClick() {
    if (splash != nullptr) {
        ui->MainLayout->removeWidget(splash);
        splash->hide();
        splash->deleteLater();
        splash = nullptr;
    }
    ui->diagnosticWidget->show();
    startDiagnostic();
}

void MainWindow::startDiagnostic() {
    for (QPushButton* button : {ui->restartButton, ui->helpButton, ui->contactButton, ui->closeButton,
                                ui->saveButton, ui->optimButton}) {
        button->setEnabled(false);
    }
    if (runner->thread != nullptr)
        runner->stopAndJoin();
    runner->running = true;
    runner->finished = false;
    for (DiagnosticNode* node : runner->nodes) {
        node->setPercent(0.f);
        node->messages.clear();
    }
    runner->running = true;
    runner->results = &results;
    runner->start();
}

void MainWindow::updateDiagnostic() {
    for (int i = 0; i < nodesLayout->count(); ++i) {
        auto* widget = qobject_cast<DiagnosticNodeWidget*>(nodesLayout->itemAt(i)->widget());
        if (widget == nullptr)
            continue;
        DiagnosticNode* node = widget->getNode();
        const float percent = node->getPercent();
        if (percent > 0.f && percent < 100.f && !node->statusText.empty()) {
            const QString text = QString::fromStdString(node->statusText);
            ui->statusLabel->setText(text);
            if (!text.isEmpty())
                ui->statusLabel->show();
            break;
        }
    }
}

void MainWindow::diagnosticFinished() {
    for (QPushButton* button : {ui->restartButton, ui->helpButton, ui->contactButton, ui->closeButton,
                                ui->saveButton, ui->optimButton}) {
        button->setEnabled(true);
    }
    std::vector<std::string> issues;
    for (DiagnosticNode* node : runner->nodes) {
        for (const DiagnosticNode::Message& message : node->messages) {
            if (message.level == DIAGNOSTIC_ERROR || message.level == DIAGNOSTIC_WARNING ||
                message.level == DIAGNOSTIC_NOT_TESTED) {
                issues.push_back(message.text);
            }
        }
    }
    if (!issues.empty()) {
        ui->errorsLabel->show();
        ui->errorsLabel->setText(
            "Errors occurred<br/>A detailed report can be saved to be shared with support if needed.");
        ui->errorsLabel->setFont(style->font_label);
        ui->errorsLabel->setStyleSheet(style->sheet_label_red);
        for (const std::string& text : issues)
            qDebug() << QString::fromStdString(text);
    }
    modelSelector->fill();
    ui->optimButton->setEnabled(true);
}

void MainWindow::restartOnClick() {
    startDiagnostic();
    ui->exportLabel->clear();
    ui->exportLabel->hide();
    exportPath.clear();
}

void MainWindow::helpOnClick() {
    openUrl(QUrl(gui::helpCenterUrl()));
}

void MainWindow::contactOnClick() {
    openUrl(QUrl(gui::contactMailLink(QString::fromStdString(exportPath)), QUrl::TolerantMode));
}

void MainWindow::closeOnClick() {
    QCoreApplication::exit(0);
}

void MainWindow::optimOnClick() {
    modelSelector->move(x() + 6, y());
    modelSelector->show();
    modelSelector->raise();
}

void MainWindow::saveOnClick() {
    saveResult();
}

void MainWindow::saveResult() {
    const QString path = saveFileDialog(this, "Save diagnostic", QDir::homePath() + "/" + kReportName,
                                        "Diagnostic file (.json)");
    if (path.isEmpty())
        return;
    const QByteArray localPath = QFile::encodeName(path);
    FILE* file = std::fopen(localPath.constData(), "w");
    if (file == nullptr) {
        std::printf(
            "\n ERROR : Cannot create log file. \nPlease run the application with administrator rights.");
        std::fflush(stdout);
        QMessageBox::critical(
            this, "Error", "Cannot create log file. \nPlease run the application with administrator rights.");
        return;
    }
    // Written verbatim: report values are never used as a format string.
    const QByteArray json = QJsonDocument(results).toJson(QJsonDocument::Indented);
    std::fwrite(json.constData(), 1, static_cast<size_t>(json.size()), file);
    std::fclose(file);
    exportPath = path.toStdString();
}
