#pragma once

#include <QFuture>
#include <QString>
#include <QWidget>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "ai/AIModels.h"
#include "gui/formModel.h"

class Style;
class WaitingSpinnerWidget;
namespace Ui {
class ModelSelector;
}

// The "Model Optimizer" window: the 14 AI models with a tick box each; the
// ticked ones are optimised on a worker thread, or all models are removed.
class ModelSelector : public QWidget {
    Q_OBJECT
public:
    explicit ModelSelector(QWidget* parent = nullptr);
    // Stops the spinner task and waits for the worker.
    ~ModelSelector() override;

    // Rebuilds the list from what is installed.
    void fill();
    // Removes every row.
    void clear();

    bool isRunning() const { return running.load(); }
    const std::vector<FormModel*>& rows() const { return models; }
    FormModel* headerRow() const { return header; }
    WaitingSpinnerWidget* getSpinner() const { return spinner; }

signals:
    void optim_finished();
    void optim_step(QString model);
    void optim_error(QString message);

public slots:
    void start_optim();
    void clear_models();
    // Worker body: optimises the rows' models one after the other.
    void optim(std::vector<FormModel*> models, std::string optim_lib_name);
    void finish_optim();
    void step_optim(QString model);
    void updateAiProgressSpinner();
    void display_error_message(QString message);
    void CheckAllOptimCheckboxes(int state);

private:
    void optimModels(const std::vector<bh::AI_MODELS>& list, const std::string& versionName);
    void updateModelCheckBox(bh::AI_MODELS model);
    void joinWorker();

    Ui::ModelSelector* ui;
    WaitingSpinnerWidget* spinner;
    std::vector<FormModel*> models;
    FormModel* header = nullptr;
    std::atomic<bool> running{false};
    std::thread worker;
    QFuture<void> spinnerTask;

    static Style* style;
};
