#pragma once

#include <QLabel>
#include <QMouseEvent>

// A label that reports a left click as a signal.
class QLabelClick : public QLabel {
    Q_OBJECT
public:
    explicit QLabelClick(QWidget* parent = nullptr) : QLabel(parent) {}

signals:
    void clicked();

protected:
    void mouseReleaseEvent(QMouseEvent* event) override {
        if (event->button() == Qt::LeftButton && rect().contains(event->pos()))
            emit clicked();
        QLabel::mouseReleaseEvent(event);
    }
};
