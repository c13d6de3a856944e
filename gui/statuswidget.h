#pragma once

#include <QPixmap>
#include <QPropertyAnimation>
#include <QWidget>

// A 24 x 24 icon that can turn on itself: the node's status.
class StatusWidget : public QWidget {
    Q_OBJECT
    Q_PROPERTY(int animationValue READ getAnimationValue WRITE setAnimationValue)
public:
    explicit StatusWidget(QWidget* parent = nullptr);

    void setPixmap(const QPixmap& pixmap);
    void setRot(int degrees);
    // Stops any turning and resets the angle to 0; with `on`, turns once every
    // `durationMs` through `maxValue` steps, for ever.
    void setAnimated(bool on, int durationMs = 2000, int maxValue = 359);

    int getAnimationValue() const { return animationValue; }
    int getRotation() const { return rotation; }
    bool isAnimated() const { return animation.state() == QAbstractAnimation::Running; }
    int animationDuration() const { return animation.duration(); }
    const QPixmap& getPixmap() const { return pixmap; }

signals:
    void clicked();

public slots:
    void setAnimationValue(int value);

protected:
    void paintEvent(QPaintEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;

private:
    QPixmap pixmap;
    int rotation = 0;
    int animationValue = 0;
    int maxValue = 359;
    QPropertyAnimation animation;
};
