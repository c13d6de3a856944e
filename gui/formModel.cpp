#include "gui/formModel.h"

#include "gui/colors.h"
#include "gui/style.h"
#include "ui_formModel.h"

Style* FormModel::style = nullptr;

FormModel::FormModel(QWidget* parent, bool header) : QWidget(parent), ui(new Ui::Form) {
    if (style == nullptr)
        style = new Style();
    ui->setupUi(this);
    ui->label_model_name->setFont(header ? style->font_header : style->font_label);
    ui->label_model_name->setStyleSheet(style->sheet_label);
    ui->label_optim->setFont(style->font_small);
    ui->label_optim->setStyleSheet(style->sheet_label_green);
    ui->checkBox_optim->setFont(style->font_small);
    ui->checkBox_optim->setStyleSheet(style->sheet_checkbox);
    ui->checkBox_optim->setCursor(Qt::PointingHandCursor);
    // Same column widths on every row, so that the boxes line up.
    ui->horizontalLayout_2->setStretch(0, 1);
    ui->checkBox_optim->setFixedWidth(130);
    ui->label_optim->setFixedWidth(80);
    if (header) {
        ui->label_model_name->setText("AI Model name");
        ui->checkBox_optim->setText("Optimize all");
    }
}

FormModel::~FormModel() {
    delete ui;
}

void FormModel::addModel(bh::AI_MODELS model_, bool flag) {
    model = model_;
    ui->label_model_name->setText(QString::fromLatin1(ai::modelDisplayText(model)));
    setOptimized(flag);
}

void FormModel::setOptimized(bool flag) {
    optimized = flag;
    ui->label_optim->setText(flag ? "Optimized" : "");
    if (flag) {
        ui->checkBox_optim->setChecked(true);
        ui->checkBox_optim->setEnabled(false);
        ui->checkBox_optim->setStyleSheet(style->sheet_checkbox_fixed);
    } else {
        ui->checkBox_optim->setEnabled(true);
        ui->checkBox_optim->setStyleSheet(style->sheet_checkbox);
    }
}

void FormModel::setForOptim(int state) {
    if (state != 0)
        ui->checkBox_optim->setChecked(true);
}

bool FormModel::needOptim() {
    if (optimized)
        return false;
    return ui->checkBox_optim->isChecked();
}

QCheckBox* FormModel::getOptimCheckbox() {
    return ui->checkBox_optim;
}

QString FormModel::nameText() const {
    return ui->label_model_name->text();
}
QString FormModel::optimText() const {
    return ui->label_optim->text();
}
