#include "gui/statuswidget.h"

#include <QMouseEvent>
#include <QPainter>

StatusWidget::StatusWidget(QWidget* parent) : QWidget(parent), animation(this, "animationValue") {
    setFixedSize(24, 24);
    animation.setStartValue(0);
    animation.setEndValue(maxValue);
    animation.setLoopCount(-1);
    animation.setDuration(2000);
}

void StatusWidget::setPixmap(const QPixmap& value) {
    pixmap = value.isNull() ? QPixmap() : value.scaled(24, 24, Qt::KeepAspectRatio, Qt::SmoothTransformation);
    update();
}

void StatusWidget::setRot(int degrees) {
    rotation = degrees;
    update();
}

void StatusWidget::setAnimated(bool on, int durationMs, int max) {
    animation.stop();
    rotation = 0;
    animationValue = 0;
    if (on) {
        maxValue = max > 0 ? max : 359;
        animation.setEndValue(maxValue);
        animation.setDuration(durationMs > 0 ? durationMs : 2000);
        animation.start();
    }
    update();
}

void StatusWidget::setAnimationValue(int value) {
    animationValue = value;
    rotation = static_cast<int>(360.0 / maxValue * value);
    update();
}

void StatusWidget::paintEvent(QPaintEvent*) {
    if (pixmap.isNull())
        return;
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    painter.translate(width() / 2.0, height() / 2.0);
    painter.rotate(rotation);
    const QSizeF size = pixmap.size() / pixmap.devicePixelRatioF();
    painter.drawPixmap(QPointF(-size.width() / 2.0, -size.height() / 2.0), pixmap);
}

void StatusWidget::mouseReleaseEvent(QMouseEvent* event) {
    if (event->button() == Qt::LeftButton && rect().contains(event->pos()))
        emit clicked();
    QWidget::mouseReleaseEvent(event);
}
