#pragma once

#include <QWidget>

class Style;
namespace Ui {
class SplashScreen;
}

// The panel shown in the main window before the first run.
class SplashScreen : public QWidget {
    Q_OBJECT
public:
    explicit SplashScreen(QWidget* parent = nullptr);
    ~SplashScreen() override;

signals:
    void s_startOnClick();

public slots:
    void startOnClick();

private:
    Ui::SplashScreen* ui;
    static Style* style;
};
