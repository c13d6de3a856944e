#include "gui/waitingspinnerwidget.h"

#include <QPainter>

#include <algorithm>
#include <cmath>

WaitingSpinnerWidget::WaitingSpinnerWidget(QWidget* parent, bool centerOnParent,
                                           bool disableParentWhenSpinning)
    : QWidget(parent),
      _centerOnParent(centerOnParent),
      _disableParentWhenSpinning(disableParentWhenSpinning) {
    initialize();
}

WaitingSpinnerWidget::WaitingSpinnerWidget(Qt::WindowModality modality, QWidget* parent, bool centerOnParent,
                                           bool disableParentWhenSpinning)
    : QWidget(parent, Qt::Dialog | Qt::FramelessWindowHint),
      _centerOnParent(centerOnParent),
      _disableParentWhenSpinning(disableParentWhenSpinning) {
    initialize();
    setWindowModality(modality);
    setAttribute(Qt::WA_TranslucentBackground);
}

void WaitingSpinnerWidget::initialize() {
    _color = QColor(217, 255, 66, 255);
    _roundness = 90.0;
    _minimumTrailOpacity = 3.141592653589793;
    _trailFadePercentage = 60.0;
    _revolutionsPerSecond = 1.0;
    _numberOfLines = 58;
    _lineLength = 8;
    _lineWidth = 3;
    _innerRadius = 6;
    _currentCounter = 0;
    _isSpinning = false;
    updateSize();
    hide();
}

void WaitingSpinnerWidget::start() {
    updatePosition();
    _isSpinning = true;
    show();
    if (parentWidget() && _disableParentWhenSpinning)
        parentWidget()->setEnabled(false);
    _currentCounter = 0;
}

void WaitingSpinnerWidget::stop() {
    _isSpinning = false;
    hide();
    if (parentWidget() && _disableParentWhenSpinning)
        parentWidget()->setEnabled(true);
}

void WaitingSpinnerWidget::rotate() {
    if (!_isSpinning)
        return;
    ++_currentCounter;
    if (_currentCounter >= _numberOfLines)
        _currentCounter = 0;
    update();
}

void WaitingSpinnerWidget::setColor(QColor color) {
    _color = color;
}
void WaitingSpinnerWidget::setRoundness(qreal roundness) {
    _roundness = std::max(0.0, std::min(100.0, roundness));
}
void WaitingSpinnerWidget::setMinimumTrailOpacity(qreal value) {
    _minimumTrailOpacity = value;
}
void WaitingSpinnerWidget::setTrailFadePercentage(qreal trail) {
    _trailFadePercentage = trail;
}
void WaitingSpinnerWidget::setRevolutionsPerSecond(qreal value) {
    _revolutionsPerSecond = value;
}
void WaitingSpinnerWidget::setNumberOfLines(int lines) {
    _numberOfLines = std::max(1, lines);
    _currentCounter = 0;
}
void WaitingSpinnerWidget::setLineLength(int length) {
    _lineLength = length;
    updateSize();
}
void WaitingSpinnerWidget::setLineWidth(int width) {
    _lineWidth = width;
    updateSize();
}
void WaitingSpinnerWidget::setInnerRadius(int radius) {
    _innerRadius = radius;
    updateSize();
}

void WaitingSpinnerWidget::updateSize() {
    const int size = (_innerRadius + _lineLength) * 2;
    setMinimumSize(size, size);
    resize(size, size);
}

void WaitingSpinnerWidget::updatePosition() {
    if (parentWidget() && _centerOnParent) {
        move(parentWidget()->width() / 2 - width() / 2, parentWidget()->height() / 2 - height() / 2);
    }
}

int WaitingSpinnerWidget::lineCountDistanceFromPrimary(int current, int primary, int totalNrOfLines) {
    int distance = primary - current;
    if (distance < 0)
        distance += totalNrOfLines;
    return distance;
}

QColor WaitingSpinnerWidget::currentLineColor(int countDistance, int totalNrOfLines, qreal trailFadePerc,
                                              qreal minOpacity, QColor color) {
    if (countDistance == 0)
        return color;
    const qreal minAlphaF = minOpacity / 100.0;
    const int distanceThreshold = static_cast<int>(std::ceil((totalNrOfLines - 1) * trailFadePerc / 100.0));
    if (countDistance > distanceThreshold) {
        color.setAlphaF(minAlphaF);
    } else {
        const qreal alphaDiff = color.alphaF() - minAlphaF;
        const qreal gradient = alphaDiff / static_cast<qreal>(distanceThreshold + 1);
        qreal resultAlpha = color.alphaF() - gradient * countDistance;
        resultAlpha = std::min(1.0, std::max(0.0, resultAlpha));
        color.setAlphaF(resultAlpha);
    }
    return color;
}

void WaitingSpinnerWidget::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.fillRect(rect(), Qt::transparent);
    painter.setRenderHint(QPainter::Antialiasing, true);
    if (_currentCounter >= _numberOfLines)
        _currentCounter = 0;
    painter.setPen(Qt::NoPen);
    for (int i = 0; i < _numberOfLines; ++i) {
        painter.save();
        painter.translate(width() / 2.0, height() / 2.0);
        const qreal rotateAngle = static_cast<qreal>(360 * i) / static_cast<qreal>(_numberOfLines);
        painter.rotate(rotateAngle);
        painter.translate(_innerRadius, 0);
        const int distance = lineCountDistanceFromPrimary(i, _currentCounter, _numberOfLines);
        painter.setBrush(
            currentLineColor(distance, _numberOfLines, _trailFadePercentage, _minimumTrailOpacity, _color));
        painter.drawRoundedRect(QRect(0, -_lineWidth / 2, _lineLength, _lineWidth), _roundness, _roundness,
                                Qt::RelativeSize);
        painter.restore();
    }
}
