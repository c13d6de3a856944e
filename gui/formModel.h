#pragma once

#include <QCheckBox>
#include <QWidget>

#include "ai/AIModels.h"

class Style;
namespace Ui {
class Form;
}

// One row of the model selector: a model's name, its tick box and whether it
// is already optimised. A row built with `header` is the list's head.
class FormModel : public QWidget {
    Q_OBJECT
public:
    FormModel(QWidget* parent, bool header);
    ~FormModel() override;

    void addModel(bh::AI_MODELS model, bool optimized);
    void setOptimized(bool flag);
    // Ticks the box when `state` is not 0.
    void setForOptim(int state);
    // False for a row already optimised; otherwise whether the box is ticked.
    bool needOptim();
    QCheckBox* getOptimCheckbox();

    bool isOptimized() const { return optimized; }
    bh::AI_MODELS getModel() const { return model; }
    QString nameText() const;
    QString optimText() const;

private:
    Ui::Form* ui;
    static Style* style;
    bool optimized = false;
    bh::AI_MODELS model = bh::LAST;
};
