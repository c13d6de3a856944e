#include "gui/modelSelector.h"

#include <QMessageBox>
#include <QMetaObject>
#include <QPushButton>
#include <QtConcurrent>

#include <chrono>
#include <cstdio>

#include "ai/LibAILoader.h"
#include "gui/colors.h"
#include "gui/style.h"
#include "gui/waitingspinnerwidget.h"
#include "ui_modelSelector.h"

Style* ModelSelector::style = nullptr;

ModelSelector::ModelSelector(QWidget* parent) : QWidget(parent), ui(new Ui::ModelSelector) {
    if (style == nullptr)
        style = new Style();
    ui->setupUi(this);
    setWindowTitle("Model Optimizer");
    setObjectName("ModelSelector");
    setStyleSheet(QString("#ModelSelector{background: %1;}").arg(clr::bh_soil));
    setAutoFillBackground(true);
    QPalette palette = this->palette();
    palette.setColor(QPalette::Window, QColor(25, 25, 25));
    setPalette(palette);

    spinner = new WaitingSpinnerWidget(this, false, false);
    spinner->setMinimumSize(40, 40);
    ui->progress_layout->insertWidget(0, spinner);

    ui->optimInfoLabel->setText("");
    ui->optimInfoLabel->setFont(style->font_label);
    ui->optimInfoLabel->setStyleSheet(style->sheet_label);
    for (QPushButton* button : {ui->optimButton, ui->clearButton}) {
        button->setFont(style->font_button);
        button->setStyleSheet(style->sheet_button);
    }

    connect(ui->optimButton, &QPushButton::released, this, &ModelSelector::start_optim);
    connect(ui->clearButton, &QPushButton::released, this, &ModelSelector::clear_models);
    connect(this, &ModelSelector::optim_error, this, &ModelSelector::display_error_message);
    connect(this, &ModelSelector::optim_finished, this, &ModelSelector::finish_optim);
    connect(this, &ModelSelector::optim_step, this, &ModelSelector::step_optim);
}

ModelSelector::~ModelSelector() {
    running = false;
    spinnerTask.waitForFinished();
    joinWorker();
    delete ui;
}

void ModelSelector::joinWorker() {
    if (worker.joinable() && worker.get_id() != std::this_thread::get_id())
        worker.join();
}

void ModelSelector::clear() {
    for (FormModel* row : models) {
        ui->stack->removeWidget(row);
        delete row;
    }
    models.clear();
    if (header != nullptr) {
        ui->stack->removeWidget(header);
        delete header;
        header = nullptr;
    }
}

void ModelSelector::fill() {
    clear();
    header = new FormModel(this, true);
    connect(header->getOptimCheckbox(), &QCheckBox::stateChanged, this,
            &ModelSelector::CheckAllOptimCheckboxes);
    ui->stack->addWidget(header, 0, Qt::AlignTop);
    for (int i = 0; i < ai::AI_MODELS_COUNT; ++i) {
        const auto model = static_cast<bh::AI_MODELS>(i);
        ai::checkAIModel(model);
        const bool optimized = ai::checkAIModelOptim(model, 0, false);
        auto* row = new FormModel(this, false);
        row->addModel(model, optimized);
        models.push_back(row);
        ui->stack->addWidget(row, 0, Qt::AlignTop);
    }
}

void ModelSelector::CheckAllOptimCheckboxes(int state) {
    for (FormModel* row : models)
        row->setForOptim(state);
}

void ModelSelector::start_optim() {
    joinWorker();
    running = true;
    spinner->start();
    spinnerTask = QtConcurrent::run([this] { updateAiProgressSpinner(); });

    ai::AILoader loader;
    loader.loadLib(ai::AI_LIB_ALL, 0);
    const std::string versionName = loader.getLibVersionName(0);

    std::vector<FormModel*> selected;
    for (FormModel* row : models) {
        if (row->needOptim())
            selected.push_back(row);
    }
    if (selected.empty()) {
        finish_optim();
        loader.close();
        return;
    }
    // The worker gets the model values, not the rows: the list may be rebuilt
    // (a diagnosis ending calls fill) while it works.
    std::vector<bh::AI_MODELS> list;
    for (FormModel* row : selected)
        list.push_back(row->getModel());
    worker = std::thread([this, list, versionName] { optimModels(list, versionName); });
    ui->optimButton->hide();
    ui->clearButton->hide();
    loader.close();
}

void ModelSelector::updateAiProgressSpinner() {
    while (running) {
        // Widgets are touched on the GUI thread only.
        QMetaObject::invokeMethod(spinner, "rotate", Qt::QueuedConnection);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

void ModelSelector::optim(std::vector<FormModel*> rows, std::string optim_lib_name) {
    std::vector<bh::AI_MODELS> list;
    for (FormModel* row : rows)
        list.push_back(row->getModel());
    optimModels(list, optim_lib_name);
}

void ModelSelector::optimModels(const std::vector<bh::AI_MODELS>& list, const std::string& versionName) {
    std::printf("%zu models selected for optimization.\n", list.size());
    std::fflush(stdout);
    ai::AILoader loader;
    loader.loadLib(ai::AI_LIB_ALL, 0);
    // An empty list reports the end here and once more below: two signals.
    if (list.empty())
        emit optim_finished();
    std::vector<std::string> errors;
    std::string name = versionName;
    for (bh::AI_MODELS model : list) {
        emit optim_step(QString::fromStdString(ai::getModelBaseName(model)));
        const int result = loader.optimAIModel(model, 0, false, name, false);
        if (result == 0) {
            QMetaObject::invokeMethod(
                this, [this, model] { updateModelCheckBox(model); }, Qt::QueuedConnection);
        } else {
            errors.push_back(
                std::string(ai::modelDisplayText(model)) +
                " encountered an issue during the optimization process : " + std::to_string(result));
        }
    }
    loader.close();
    if (!errors.empty()) {
        QString message = "Errors occurred during the optimization process.\n";
        for (const std::string& text : errors)
            message += " => " + QString::fromStdString(text);
        emit optim_error(message);
    }
    emit optim_finished();
}

void ModelSelector::updateModelCheckBox(bh::AI_MODELS model) {
    for (FormModel* row : models) {
        if (row->getModel() == model)
            row->setOptimized(true);
    }
}

void ModelSelector::step_optim(QString model) {
    ui->optimInfoLabel->setText("Optimizing " + model +
                                ".\nOptimization can take a few minutes up to half an hour.");
}

void ModelSelector::finish_optim() {
    running = false;
    joinWorker();
    spinner->stop();
    ui->optimButton->show();
    ui->clearButton->show();
    ui->optimInfoLabel->setText("");
    clear();
    fill();
}

void ModelSelector::display_error_message(QString message) {
    QMessageBox box(this);
    box.setIcon(QMessageBox::Warning);
    box.setWindowTitle("Warning");
    box.setText(message);
    box.setFont(style->font_box);
    box.setStyleSheet(style->sheet_messagebox);
    box.addButton("Ok", QMessageBox::AcceptRole);
    box.exec();
}

void ModelSelector::clear_models() {
    QMessageBox box(this);
    box.setIcon(QMessageBox::Warning);
    box.setWindowTitle("Warning");
    box.setText("All models will be deleted. Optimizations will be needed to run AI again.");
    box.setFont(style->font_box);
    box.setStyleSheet(style->sheet_messagebox);
    QPushButton* yes = box.addButton("Yes", QMessageBox::YesRole);
    box.exec();
    if (box.clickedButton() != yes)
        return;
    ai::AILoader loader;
    loader.loadLib(ai::AI_LIB_ALL, 0);
    loader.removeAllAIModels();
    loader.close();
    fill();
}
