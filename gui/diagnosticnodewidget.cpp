#include "gui/diagnosticnodewidget.h"

#include <QHBoxLayout>
#include <QIcon>
#include <QLabel>
#include <QLayoutItem>

#include <chrono>

#include "gui/colors.h"
#include "gui/statuswidget.h"
#include "gui/style.h"
#include "ui_diagnosticnodewidget.h"

Style* DiagnosticNodeWidget::style = nullptr;
std::atomic<int> DiagnosticNodeWidget::liveThreads{0};

namespace {
const char* kArrowDown = ":/images/drop_arrow_bh_pearl.png";
const char* kArrowUp = ":/images/top_arrow_bh_pearl.png";
constexpr int kMaxHeight = 16777215;
}  // namespace

DiagnosticNodeWidget::DiagnosticNodeWidget(QWidget* parent, DiagnosticNode* node_)
    : QWidget(parent), node(node_), ui(new Ui::DiagnosticNodeWidget) {
    if (style == nullptr)
        style = new Style();
    ui->setupUi(this);

    statusIcon = new StatusWidget(this);
    ui->titleLayout->insertWidget(0, statusIcon);
    statusIcon->setPixmap(QPixmap());
    statusIcon->setAnimated(false, 2000, 359);
    statusIcon->setCursor(Qt::PointingHandCursor);

    ui->textLabel->setFont(style->font_header);
    ui->textLabel->setStyleSheet(style->sheet_label);
    ui->percentLabel->setFont(style->font_small);
    ui->percentLabel->setStyleSheet(style->sheet_label_dim);
    ui->showIssuesButton->setIcon(QIcon(kArrowDown));
    ui->showIssuesButton->hide();
    ui->issuesContainer->hide();

    issuesLayout = new QVBoxLayout(ui->issuesContainer);
    issuesLayout->setContentsMargins(0, 0, 0, 0);
    issuesLayout->setSpacing(6);
    ui->issuesContainer->setContentsMargins(40, 8, 0, 4);

    issuesAnimation = new QPropertyAnimation(ui->issuesContainer, "maximumHeight", this);
    issuesAnimation->setDuration(50);

    connect(this, &DiagnosticNodeWidget::s_updateUi, this, &DiagnosticNodeWidget::updateUi,
            Qt::QueuedConnection);
    connect(ui->showIssuesButton, &QPushButton::released, this, &DiagnosticNodeWidget::onShowIssuesClick);
    connect(ui->textLabel, &QLabelClick::clicked, this, &DiagnosticNodeWidget::onShowIssuesClick);
    connect(statusIcon, &StatusWidget::clicked, this, &DiagnosticNodeWidget::onShowIssuesClick);
    connect(issuesAnimation, &QPropertyAnimation::finished, this,
            &DiagnosticNodeWidget::onShowIssuesAnimationEnd);

    ui->textLabel->setText(node != nullptr ? QString::fromStdString(node->name) : QString());

    updateThread = std::thread(&DiagnosticNodeWidget::run, this);
}

DiagnosticNodeWidget::~DiagnosticNodeWidget() {
    {
        std::lock_guard<std::mutex> lock(stopMutex);
        stop = true;
    }
    stopCondition.notify_all();
    if (updateThread.joinable())
        updateThread.join();
    delete ui;
}

void DiagnosticNodeWidget::run(DiagnosticNodeWidget* self) {
    ++liveThreads;
    std::unique_lock<std::mutex> lock(self->stopMutex);
    while (!self->stop) {
        lock.unlock();
        emit self->s_updateUi();
        lock.lock();
        self->stopCondition.wait_for(lock, std::chrono::milliseconds(50),
                                     [self] { return self->stop.load(); });
    }
    lock.unlock();
    emit self->s_updateUi();
    --liveThreads;
}

int DiagnosticNodeWidget::stateOf(DiagnosticNode* node) {
    if (node == nullptr)
        return STATE_IDLE;
    const float percent = node->getPercent();
    if (percent >= 100.f) {
        bool error = false, warning = false, info = false, notTested = false;
        for (const DiagnosticNode::Message& message : node->messages) {
            switch (message.level) {
                case DIAGNOSTIC_ERROR:
                    error = true;
                    break;
                case DIAGNOSTIC_WARNING:
                    warning = true;
                    break;
                case DIAGNOSTIC_INFO:
                    info = true;
                    break;
                case DIAGNOSTIC_NOT_TESTED:
                    notTested = true;
                    break;
                default:
                    break;
            }
        }
        if (error)
            return STATE_ERROR;
        if (warning)
            return STATE_WARNING;
        if (info)
            return STATE_INFO;
        if (!notTested)
            return STATE_SUCCESS;
        return STATE_NOT_TESTED;
    }
    if (percent > 0.f)
        return STATE_RUNNING;
    return STATE_IDLE;
}

QString DiagnosticNodeWidget::iconForState(int state) {
    switch (state) {
        case STATE_RUNNING:
            return ":/images/loading.png";
        case STATE_INFO:
            return ":/images/info.png";
        case STATE_WARNING:
            return ":/images/warning.png";
        case STATE_ERROR:
            return ":/images/fail.png";
        case STATE_SUCCESS:
            return ":/images/success.png";
        case STATE_NOT_TESTED:
            return ":/images/notTested.png";
        default:
            return QString();
    }
}

QString DiagnosticNodeWidget::iconForLevel(DIAGNOSTIC_MESSAGE_LEVEL level) {
    switch (level) {
        case DIAGNOSTIC_ERROR:
            return ":/images/fail.png";
        case DIAGNOSTIC_WARNING:
            return ":/images/warning.png";
        case DIAGNOSTIC_INFO:
            return ":/images/info.png";
        case DIAGNOSTIC_VALID:
            return ":/images/success.png";
        case DIAGNOSTIC_NOT_TESTED:
            return ":/images/info.png";
        default:
            return QString();
    }
}

void DiagnosticNodeWidget::updateUi() {
    if (node == nullptr)
        return;
    const float percent = node->getPercent();
    const int state = stateOf(node);

    if (state != visualState) {
        if (visualState == STATE_RUNNING)
            statusIcon->setAnimated(false, 2000, 359);
        visualState = state;
        const QString icon = iconForState(state);
        statusIcon->setPixmap(icon.isEmpty() ? QPixmap() : QPixmap(icon));
        if (state == STATE_RUNNING)
            statusIcon->setAnimated(true, 750, 359);
        switch (state) {
            case STATE_INFO:
            case STATE_SUCCESS:
                ui->textLabel->setStyleSheet(style->sheet_label_green);
                break;
            case STATE_WARNING:
                ui->textLabel->setStyleSheet(style->sheet_label_warning);
                break;
            case STATE_ERROR:
                ui->textLabel->setStyleSheet(style->sheet_label_red);
                break;
            default:
                ui->textLabel->setStyleSheet(style->sheet_label);
                break;
        }
    }

    if (state == STATE_RUNNING) {
        ui->percentLabel->setText(QString::number(static_cast<int>(percent)) + "%");
    } else {
        ui->percentLabel->setText(QString());
    }

    const int count = static_cast<int>(node->messages.size());
    if (count < shownMessages) {
        // A restart emptied the node: fold in and drop the old rows.
        clearIssues();
        shownMessages = 0;
        emit s_notifyUpdated();
    }

    if (percent >= 100.f && count > shownMessages) {
        for (int i = shownMessages; i < count; ++i)
            addIssueRow(node->messages[static_cast<size_t>(i)]);
        shownMessages = count;
        ui->showIssuesButton->show();
        emit s_notifyUpdated();
    }
}

void DiagnosticNodeWidget::addIssueRow(const DiagnosticNode::Message& message) {
    auto* row = new QHBoxLayout();
    row->setContentsMargins(0, 0, 0, 0);
    row->setSpacing(10);

    auto* icon = new QLabel(ui->issuesContainer);
    icon->setMaximumSize(20, 20);
    icon->setMinimumSize(20, 20);
    const QString iconPath = iconForLevel(message.level);
    if (!iconPath.isEmpty()) {
        icon->setPixmap(QPixmap(iconPath).scaled(20, 20, Qt::KeepAspectRatio, Qt::SmoothTransformation));
    }
    icon->setAlignment(Qt::AlignTop | Qt::AlignHCenter);
    icon->setStyleSheet("background: transparent;");

    auto* text = new QLabel(ui->issuesContainer);
    text->setTextFormat(Qt::RichText);
    text->setWordWrap(true);
    text->setOpenExternalLinks(true);
    text->setTextInteractionFlags(Qt::TextBrowserInteraction);
    text->setFont(style->font_message);
    text->setStyleSheet(style->sheet_label);
    text->setText(QString::fromUtf8(message.text.c_str(), static_cast<int>(message.text.size())));

    row->addWidget(icon, 0, Qt::AlignTop);
    row->addWidget(text, 1, Qt::AlignTop);
    issuesLayout->addLayout(row);
    issuesLayout->setAlignment(row, Qt::AlignTop);
}

void DiagnosticNodeWidget::clearIssues() {
    if (issuesOpen) {
        issuesAnimation->stop();
        issuesOpen = false;
        ui->showIssuesButton->setIcon(QIcon(kArrowDown));
    }
    ui->issuesContainer->hide();
    ui->issuesContainer->setMaximumHeight(kMaxHeight);
    while (QLayoutItem* item = issuesLayout->takeAt(0)) {
        if (QLayout* row = item->layout()) {
            while (QLayoutItem* child = row->takeAt(0)) {
                delete child->widget();
                delete child;
            }
        }
        delete item->widget();
        delete item;
    }
}

void DiagnosticNodeWidget::onShowIssuesClick() {
    QWidget* container = ui->issuesContainer;
    if (issuesOpen) {
        ui->showIssuesButton->setIcon(QIcon(kArrowDown));
        issuesAnimation->stop();
        issuesAnimation->setStartValue(container->height() + 1);
        issuesAnimation->setEndValue(0);
        issuesAnimation->start();
    } else {
        ui->showIssuesButton->setIcon(QIcon(kArrowUp));
        issuesAnimation->stop();
        container->setMaximumHeight(kMaxHeight);
        container->setAttribute(Qt::WA_DontShowOnScreen, true);
        container->show();
        container->adjustSize();
        const int height = container->sizeHint().height();
        container->hide();
        container->setAttribute(Qt::WA_DontShowOnScreen, false);
        issuesAnimation->setStartValue(0);
        issuesAnimation->setEndValue(height + 1);
        issuesAnimation->start();
        container->show();
    }
    issuesOpen = !issuesOpen;
    emit s_notifyUpdated();
}

void DiagnosticNodeWidget::onShowIssuesAnimationEnd() {
    if (ui->issuesContainer->maximumHeight() == 0) {
        ui->issuesContainer->hide();
        ui->issuesContainer->setMaximumHeight(kMaxHeight);
    }
}
