#include "gui/splashscreen.h"

#include "gui/colors.h"
#include "gui/style.h"
#include "ui_splashscreen.h"

Style* SplashScreen::style = nullptr;

SplashScreen::SplashScreen(QWidget* parent) : QWidget(parent), ui(new Ui::SplashScreen) {
    if (style == nullptr)
        style = new Style();
    ui->setupUi(this);
    ui->splashLayout->setAlignment(ui->startButton, Qt::AlignHCenter);

    ui->splashTitleLabel->setFont(style->font_title);
    ui->splashTitleLabel->setStyleSheet(
        QString("QLabel{color: %1; background: transparent;}").arg(clr::bh_lime));
    ui->splashLabel->setFont(style->font_label);
    ui->splashLabel->setStyleSheet(style->sheet_label);
    ui->startButton->setFont(style->font_button);
    ui->startButton->setStyleSheet(style->sheet_button);
    ui->startButton->setCursor(Qt::PointingHandCursor);

    connect(ui->startButton, &QPushButton::released, this, &SplashScreen::startOnClick);
}

SplashScreen::~SplashScreen() {
    delete ui;
}

void SplashScreen::startOnClick() {
    emit s_startOnClick();
}
