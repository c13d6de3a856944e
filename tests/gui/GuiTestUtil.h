#pragma once

#include <QAbstractButton>
#include <QApplication>
#include <QElapsedTimer>
#include <QMessageBox>
#include <QTest>
#include <QTimer>

#include <functional>

// Waits until `condition` holds, processing events; false after `timeoutMs`.
inline bool waitUntil(const std::function<bool()>& condition, int timeoutMs = 10000) {
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > timeoutMs)
            return false;
        QTest::qWait(10);
    }
    return true;
}

// Answers the next modal message box by pressing the button with `text`; the
// box's title and text are stored for the test to check.
struct BoxAnswer {
    QString title;
    QString text;
    bool answered = false;
};

inline void answerNextMessageBox(const QString& buttonText, BoxAnswer* answer) {
    auto* timer = new QTimer();
    timer->setInterval(20);
    QObject::connect(timer, &QTimer::timeout, [timer, buttonText, answer] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (box == nullptr)
            return;
        for (QAbstractButton* button : box->buttons()) {
            if (button->text() == buttonText) {
                if (answer != nullptr) {
                    answer->title = box->windowTitle();
                    answer->text = box->text();
                    answer->answered = true;
                }
                timer->stop();
                timer->deleteLater();
                button->click();
                return;
            }
        }
    });
    timer->start();
}
